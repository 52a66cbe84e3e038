// A text in pieces becomes its lines.

#include "autoresponder/text_pieces.h"

#include "tests/twins/lines_twin.h"
#include "tests/twins/text_random.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kPiece = 256 * 1024;

Lines lines_of(const std::string& text, size_t expected_bytes = 0) {
    TextPieces pieces(expected_bytes);
    pieces.append(text);
    return pieces.take_lines();
}

std::string described(const Lines& lines) {
    std::string text = std::to_string(lines.size()) + " lines:";
    for (size_t i = 0; i < lines.size() && i < 20; ++i)
        text += " " + std::to_string(lines[i].size());
    return text;
}

void expect_naive_lines(const std::string& text) {
    const Lines got = lines_of(text, text.size());
    const Lines wanted = twin::lines_of(text);
    EXPECT_TRUE(got == wanted) << described(got) << ", wanted " << described(wanted);
}

TEST(TextPieces, NothingIsOneEmptyLine) {
    EXPECT_EQ(TextPieces(0).take_lines(), Lines{""});
    EXPECT_EQ(lines_of(""), Lines{""});
}

TEST(TextPieces, TextBehindTheLastLineFeedIsALineAlsoWhenItIsEmpty) {
    EXPECT_EQ(lines_of("one\ntwo"), (Lines{"one", "two"}));
    EXPECT_EQ(lines_of("one\ntwo\n"), (Lines{"one", "two", ""}));
    EXPECT_EQ(lines_of("\n"), (Lines{"", ""}));
    EXPECT_EQ(lines_of("\n\na"), (Lines{"", "", "a"}));
}

TEST(TextPieces, CarriageReturnsAndNulsAreOrdinary) {
    EXPECT_EQ(lines_of(std::string("a\0b\r\n\r", 6)), (Lines{std::string("a\0b\r", 4), "\r"}));
}

TEST(TextPieces, LinesMayBeAppendedBitByBit) {
    TextPieces pieces(3);
    for (const char c : std::string("on\ne\n\ntwo"))
        pieces.append(std::string_view(&c, 1));
    EXPECT_EQ(pieces.take_lines(), (Lines{"on", "e", "", "two"}));
}

TEST(TextPieces, ClearedItIsEmpty) {
    TextPieces pieces(10);
    pieces.append("one\ntwo");
    pieces.clear();
    pieces.append("three");
    EXPECT_EQ(pieces.take_lines(), Lines{"three"});
}

TEST(TextPieces, TakenItIsEmpty) {
    TextPieces pieces(10);
    pieces.append("one\ntwo");
    pieces.take_lines();
    EXPECT_EQ(pieces.take_lines(), Lines{""});
}

TEST(TextPieces, LineFeedsAboutTheEndOfAPiece) {
    for (const size_t before : {kPiece - 1, kPiece, kPiece + 1}) {
        expect_naive_lines(std::string(before, 'a'));
        expect_naive_lines(std::string(before, 'a') + "\n");
        expect_naive_lines(std::string(before, 'a') + "\nb");
        expect_naive_lines(std::string(before, '\n'));
        expect_naive_lines("x\n" + std::string(before, 'a') + "\n\n" + std::string(kPiece, 'b'));
    }
}

TEST(TextPieces, MoreOrLessThanExpectedIsTheSame) {
    const std::string text = "one\n" + std::string(3 * kPiece, 'a') + "\ntwo";
    for (const size_t expected : {size_t{0}, size_t{1}, kPiece - 1, 10 * kPiece})
        EXPECT_TRUE(lines_of(text, expected) == twin::lines_of(text)) << expected;
}

TEST(TextPieces, ALineOverManyPiecesTakesNoMoreRoomThanItNeeds) {
    const std::string line(5 * kPiece + 77, 'a');
    for (const std::string before : {"", "x\n"}) {
        const Lines lines = lines_of(before + line, 0);
        EXPECT_EQ(lines.back().size(), line.size());
        EXPECT_LT(lines.back().capacity(), line.size() + kPiece);
    }
}

TEST(TextPieces, ShortLinesTakeNoMoreRoomThanTheyNeed) {
    for (size_t size = 16; size < 100; ++size) {
        const Lines lines = lines_of("\n" + std::string(size, 'a') + "\n");
        EXPECT_EQ(lines[1].capacity(), size);
    }
}

TEST(TextPieces, AgreesWithTheNaiveWay) {
    twin::Random random("TextPieces");
    const std::vector<std::string> texts = {
        "\n", "a", "line of text\n", std::string(60000, 'x'), std::string(3000, '\n'), "\r\n"};
    for (int i = 0; i < 20; ++i)
        expect_naive_lines(random.mix(texts, 60));
}

} // namespace
