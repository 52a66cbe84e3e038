// Every vector of tests/parser/vectors.jsonl, one test a kind of input.
#include "tests/parser/mimelib_record.h"
#include "tests/parser/naive_parser.h"
#include "tests/parser/vectors.h"

#include <gtest/gtest.h>

namespace {

using namespace parser_test;

const std::vector<Vector>& vectors() {
    static const std::vector<Vector> all = read_vectors(QRX_PARSER_VECTORS);
    return all;
}

// Calls `check` for each vector of `kind`; returns how many there are.
template <class Check> size_t for_each(const std::string& kind, Check check) {
    size_t count = 0;
    for (const Vector& vector : vectors()) {
        if (vector.kind != kind)
            continue;
        SCOPED_TRACE(vector.name + "\n" + printable(vector.input));
        check(vector);
        ++count;
    }
    return count;
}

TEST(MimeVectors, AreAllThere) {
    EXPECT_EQ(vectors().size(), 1562u);
}

TEST(MimeVectors, Messages) {
    EXPECT_GT(for_each("message",
                       [](const Vector& vector) {
                           EXPECT_EQ(parse_with_mimelib(vector.input), vector.message);
                       }),
              1000u);
}

// The twin is only worth something where it follows the same rules.
TEST(MimeVectors, NaiveTwin) {
    EXPECT_GT(for_each("message",
                       [](const Vector& vector) {
                           EXPECT_EQ(parse_naively(vector.input), vector.message);
                       }),
              1000u);
    EXPECT_GT(for_each("base64",
                       [](const Vector& vector) {
                           EXPECT_EQ(printable(base64_naively(vector.input)),
                                     printable(vector.decoded));
                       }),
              70u);
    EXPECT_GT(for_each("quoted-printable",
                       [](const Vector& vector) {
                           EXPECT_EQ(printable(quoted_printable_naively(vector.input)),
                                     printable(vector.decoded));
                       }),
              90u);
}

TEST(MimeVectors, Base64) {
    EXPECT_GT(for_each("base64",
                       [](const Vector& vector) {
                           EXPECT_EQ(printable(base64_with_mimelib(vector.input)),
                                     printable(vector.decoded));
                       }),
              70u);
}

TEST(MimeVectors, QuotedPrintable) {
    EXPECT_GT(for_each("quoted-printable",
                       [](const Vector& vector) {
                           EXPECT_EQ(printable(quoted_printable_with_mimelib(vector.input)),
                                     printable(vector.decoded));
                       }),
              90u);
}

} // namespace
