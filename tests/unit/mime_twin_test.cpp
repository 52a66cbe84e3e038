// The parser against its naive twin on random inputs. A failing run is repeated with the seed that
// it prints: QRX_SEED=number.
#include "tests/parser/corpus.h"
#include "tests/parser/mimelib_record.h"
#include "tests/parser/naive_parser.h"
#include "tests/parser/vectors.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>

namespace {

using namespace parser_test;

unsigned seed() {
    static const unsigned value = [] {
        const char* given = std::getenv("QRX_SEED");
        const unsigned chosen = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                      : std::random_device()();
        std::cout << "seed: QRX_SEED=" << chosen << std::endl;
        return chosen;
    }();
    return value;
}

// What random texts are made of: everything that means something to some rule.
const std::vector<std::string> kAddressPieces = {"a",
                                                 "b@c",
                                                 "@",
                                                 "<",
                                                 ">",
                                                 ",",
                                                 ";",
                                                 ":",
                                                 ".",
                                                 "\"q\"",
                                                 "\"",
                                                 "\\",
                                                 "(",
                                                 ")",
                                                 "(c)",
                                                 "[1.2]",
                                                 "[",
                                                 "]",
                                                 " ",
                                                 "\t",
                                                 "\r",
                                                 "\n ",
                                                 "g:",
                                                 "x y",
                                                 "\xe9",
                                                 "<a@b>",
                                                 "\"a\n b\"",
                                                 "<@r,@s:a@b>",
                                                 "\r\n\t",
                                                 "\"\\\"\"",
                                                 std::string(1, '\0')};
const std::vector<std::string> kTypePieces = {"text",
                                              "multipart",
                                              "/mixed",
                                              "/",
                                              ";",
                                              " ",
                                              "; ",
                                              "boundary",
                                              "=",
                                              "b",
                                              "\"b\"",
                                              "\"",
                                              "\\",
                                              "(c)",
                                              "(",
                                              ")",
                                              "charset",
                                              "charset=x",
                                              "; boundary=b",
                                              "; boundary=\"bb\"",
                                              "\n ",
                                              "\r",
                                              "\t",
                                              "?",
                                              "\xe9",
                                              "TEXT/plain",
                                              "; a",
                                              ",",
                                              std::string(1, '\0')};
const std::vector<std::string> kLinePieces = {"From: ",
                                              "Reply-To: ",
                                              "Subject: ",
                                              "subject:",
                                              "Date :",
                                              "Content-Type: ",
                                              "X: ",
                                              "\n",
                                              "\n",
                                              "\r\n",
                                              " ",
                                              "\n ",
                                              "\n\n",
                                              "\r\n\r\n",
                                              "--b\n",
                                              "--b--\n",
                                              "--b",
                                              "--",
                                              "b",
                                              "--bb\r\n",
                                              "a@b",
                                              "text/plain",
                                              "multipart/mixed; boundary=b",
                                              "base64",
                                              "Content-Transfer-Encoding: ",
                                              "quoted-printable",
                                              "=\n",
                                              "=3D",
                                              "QUJD",
                                              "\r",
                                              "x",
                                              ":",
                                              "\v",
                                              "\xff",
                                              std::string(1, '\0')};
const std::vector<std::string> kEncodedPieces = {"QUJD",
                                                 "QQ==",
                                                 "=",
                                                 "==",
                                                 "\n",
                                                 "\r\n",
                                                 " ",
                                                 "\t",
                                                 "=3D",
                                                 "=e9",
                                                 "=\n",
                                                 "= \n",
                                                 "=4",
                                                 "=\r\n",
                                                 "Q",
                                                 "/+",
                                                 "!",
                                                 "a",
                                                 "hello, world, this is a longer run",
                                                 "\r",
                                                 "\xff",
                                                 std::string(1, '\0')};

class Generator {
public:
    Generator() : random_(seed()) {}

    size_t below(size_t limit) { return random_() % limit; }

    template <class T> const T& pick(const std::vector<T>& from) {
        return from[below(from.size())];
    }

    std::string soup(const std::vector<std::string>& pieces, size_t most) {
        std::string text;
        for (size_t count = below(most + 1); count > 0; --count)
            text += pick(pieces);
        return text;
    }

    std::string message() {
        std::string text;
        text += "Reply-To: " + soup(kAddressPieces, 12) + "\n";
        text += "From: " + soup(kAddressPieces, 12) + (below(2) ? "\r\n" : "\n");
        text += "Content-Type: " + (below(2) ? "multipart/mixed; boundary=b" : std::string()) +
                soup(kTypePieces, 8) + "\n";
        return text + soup(kLinePieces, 6) + "\n\n" + soup(kLinePieces, 40);
    }

    // One to four small changes of `text`.
    std::string mutated(std::string text) {
        for (size_t changes = 1 + below(4); changes > 0; --changes) {
            const size_t at = below(text.size() + 1);
            const size_t length = below(8);
            switch (below(5)) {
            case 0:
                text.insert(at, pick(kLinePieces));
                break;
            case 1:
                text.insert(at, pick(kAddressPieces));
                break;
            case 2:
                text.insert(at, pick(kTypePieces));
                break;
            case 3:
                text.erase(at, length);
                break;
            default:
                text.replace(at, std::min<size_t>(1, text.size() - at), 1,
                             static_cast<char>(below(256)));
            }
        }
        return text;
    }

private:
    std::mt19937 random_;
};

// Compares one message; false (with the failure noted) where the twins differ.
bool agree_on(const std::string& message) {
    const MessageRecord got = parse_with_mimelib(message);
    const MessageRecord wanted = parse_naively(message);
    EXPECT_EQ(got, wanted) << "QRX_SEED=" << seed() << "\ninput " << printable(message);
    return got == wanted;
}

constexpr int kRounds = 10000;

TEST(MimeTwin, AgreesOnMutatedVectors) {
    const std::vector<Vector> vectors = read_vectors(QRX_PARSER_VECTORS);
    Generator random;
    for (int round = 0; round < kRounds; ++round)
        ASSERT_TRUE(agree_on(random.mutated(random.pick(vectors).input)));
}

TEST(MimeTwin, AgreesOnRandomMessages) {
    Generator random;
    for (int round = 0; round < kRounds; ++round)
        ASSERT_TRUE(agree_on(random.message()));
}

TEST(MimeTwin, AgreesOnTheCorpusAndItsMutations) {
    Generator random;
    for (const CorpusMessage& message : read_corpus(QRX_CORPUS)) {
        SCOPED_TRACE(message.name);
        ASSERT_TRUE(agree_on(message.text));
        for (int round = 0; round < 4; ++round)
            ASSERT_TRUE(agree_on(random.mutated(message.text)));
    }
}

TEST(MimeTwin, DecodersAgreeOnRandomTexts) {
    Generator random;
    for (int round = 0; round < kRounds; ++round) {
        const std::string text = random.soup(kEncodedPieces, 30);
        ASSERT_EQ(printable(base64_with_mimelib(text)), printable(base64_naively(text)))
            << "QRX_SEED=" << seed() << "\ninput " << printable(text);
        ASSERT_EQ(printable(quoted_printable_with_mimelib(text)),
                  printable(quoted_printable_naively(text)))
            << "QRX_SEED=" << seed() << "\ninput " << printable(text);
    }
}

} // namespace
