// Multipart bodies.
#include "tests/parser/mimelib_record.h"

#include <gtest/gtest.h>

namespace {

using namespace parser_test;

// The bodies of the parts of `body`, in brackets.
std::string parts_of(const std::string& body, const std::string& boundary = "b",
                     const std::string& type = "multipart/mixed") {
    const std::string message =
        "Content-Type: " + type + "; boundary=\"" + boundary + "\"\n\n" + body;
    std::string text;
    for (const EntityRecord& part : parse_with_mimelib(message).parts)
        text += "[" + part.body + "]";
    return text;
}

const std::string kTwoParts = "pre\n--b\n\none\n--b\n\ntwo\n--b--\nepi\n";

TEST(MimeParts, RunFromBehindADelimiterToTheLineEndBeforeTheNext) {
    EXPECT_EQ(parts_of(kTwoParts), "[one][two]");
    EXPECT_EQ(parts_of("--b\r\n\r\none\r\n--b\r\n\r\ntwo\r\n\r\n--b--"), "[one][two\r\n]");
    EXPECT_EQ(parts_of("--b\n\none\r\r\n--b--"), "[one\r]");
}

TEST(MimeParts, ExistInAMultipartWithABoundaryOnly) {
    EXPECT_EQ(parts_of(kTwoParts, "b", "text/plain"), "");
    EXPECT_EQ(parts_of(kTwoParts, "b", "message/rfc822"), "");
    EXPECT_EQ(parts_of(kTwoParts, "b", "MULTIPART/x"), "[one][two]");
    EXPECT_EQ(parts_of("--\n\none\n----\n", ""), "");
    EXPECT_TRUE(parse_with_mimelib("Content-Type: multipart/mixed\n\n--\n\none\n").parts.empty());
    EXPECT_TRUE(parse_with_mimelib("X: y\n\n" + kTwoParts).parts.empty());
}

TEST(MimeParts, FollowTheFirstBoundary) {
    const auto count = [](const std::string& parameters) {
        return parse_with_mimelib("Content-Type: multipart/x" + parameters + "\n\n" + kTwoParts)
            .parts.size();
    };
    EXPECT_EQ(count("; boundary=b; boundary=c"), 2u);
    EXPECT_EQ(count("; boundary=c; boundary=b"), 0u);
    EXPECT_EQ(count("; boundary=; boundary=b"), 0u);
    EXPECT_EQ(count("; x=c; BOUNDARY=b"), 2u);
}

TEST(MimeParts, HaveHeadersAndBody) {
    const MessageRecord record = parse_with_mimelib(
        "Content-Type: multipart/x; boundary=b\n\n--b\nContent-Type: text/plain; charset=u\n"
        "Content-Transfer-Encoding: base64\n\nQUJD\n--b\nno field\n--b\n\n--b--\n");
    ASSERT_EQ(record.parts.size(), 3u);
    EXPECT_EQ(record.parts[0].type, "kTypeText");
    EXPECT_EQ(record.parts[0].params.at(0).second, "u");
    EXPECT_EQ(record.parts[0].decoded, "ABC");
    EXPECT_EQ(record.parts[1].body, "no field");
    EXPECT_EQ(record.parts[2].body, "");
}

TEST(MimeParts, AreDirectOnesOnly) {
    const MessageRecord record = parse_with_mimelib(
        "Content-Type: multipart/x; boundary=b\n\n--b\nContent-Type: multipart/y; boundary=c\n\n"
        "--c\n\nin\n--c--\n--b--\n");
    ASSERT_EQ(record.parts.size(), 1u);
    EXPECT_EQ(record.parts[0].type, "kTypeMultipart");
    EXPECT_EQ(record.parts[0].body, "--c\n\nin\n--c--");
}

TEST(MimeParts, TextBeforeTheFirstAndBehindTheClosingDelimiterBelongsToNone) {
    EXPECT_EQ(parts_of("a\n\nb\n--b\n\none\n--b--\n--b\n\ntwo\n"), "[one]");
    EXPECT_EQ(parts_of("--b--\n--b\n\none\n"), "");
    EXPECT_EQ(parts_of("no delimiter\n"), "");
    EXPECT_EQ(parts_of(""), "");
}

TEST(MimeParts, WithoutAClosingDelimiterTheLastRunsToTheEnd) {
    EXPECT_EQ(parts_of("--b\n\none\n--b\n\ntwo\n\n"), "[one][two\n\n]");
    EXPECT_EQ(parts_of("--b\n\none"), "[one]");
    EXPECT_EQ(parts_of("--b"), "[]");
    EXPECT_EQ(parts_of("--b\n"), "[]");
}

TEST(MimeDelimiter, MayBeFollowedByBlanksAndCrOnly) {
    EXPECT_EQ(parts_of("--b \t\r\r\n\none\n--b-- \t\r\n"), "[one]");
    for (const char* behind : {"b", "-", "---", " x", "- -", "\v", "\x01", "-- x", "--\x0b"})
        EXPECT_EQ(parts_of("--b\n\n1\n--b" + std::string(behind) + "\n\n2\n--b--"),
                  "[1\n--b" + std::string(behind) + "\n\n2]");
}

TEST(MimeDelimiter, StandsAtTheStartOfALine) {
    EXPECT_EQ(parts_of("--b\n\none --b\n --b\n>--b\n\r--b\n--b--"), "[one --b\n --b\n>--b\n\r--b]");
}

TEST(MimeDelimiter, IsMatchedByteForByte) {
    EXPECT_EQ(parts_of("--B\n\nx\n", "b"), "");
    EXPECT_EQ(parts_of("--b\n\nx\n", "bb"), "");
    EXPECT_EQ(parts_of("--b c\n\nx\n--b c--", "b c"), "[x]");
    EXPECT_EQ(parts_of("----\n\nx\n------", "--"), "[x]");
}

TEST(MimeDelimiter, WinsOverTheClosingOneOfAShorterBoundary) {
    EXPECT_EQ(parts_of("--b--\n\nx\n--b----", "b--"), "[x]");
}

TEST(MimeDelimiter, RightBehindAnotherMakesAnEmptyPart) {
    EXPECT_EQ(parts_of("--b\n--b\n\n--b\n--b--"), "[][][]");
    EXPECT_EQ(parts_of("--b\r\n\n--b--"), "[]");
}

TEST(MimeParts, ManyAndLongOnesAreAllThere) {
    const std::string boundary(70, 'x');
    std::string body, wanted;
    for (int i = 0; i < 1000; ++i) {
        const std::string text(static_cast<size_t>(i), 'y');
        body += "--" + boundary + "\n\n" + text + "\n";
        wanted += "[" + text + "]";
    }
    EXPECT_EQ(parts_of(body + "--" + boundary + "--", boundary), wanted);
}

} // namespace
