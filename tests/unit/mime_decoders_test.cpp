// Transfer decoders.
#include "lib/mime/mimelib.h"
#include "tests/parser/mimelib_record.h"

#include <gtest/gtest.h>

#include <cctype>

namespace {

using namespace parser_test;

std::string base64(const std::string& text) {
    return base64_with_mimelib(text);
}

std::string quoted_printable(const std::string& text) {
    return quoted_printable_with_mimelib(text);
}

TEST(DwDecodeBase64, KnowsTheWholeAlphabet) {
    EXPECT_EQ(
        printable(base64("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")),
        printable(std::string("\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51"
                              "\x55\x97\x61\x96\x9b\x71\xd7\x9f\x82\x18\xa3\x92\x59\xa7\xa2\x9a"
                              "\xab\xb2\xdb\xaf\xc3\x1c\xb3\xd3\x5d\xb7\xe3\x9e\xbb\xf3\xdf\xbf",
                              48)));
}

TEST(DwDecodeBase64, PassesOverBytesOutsideTheAlphabet) {
    EXPECT_EQ(base64("QUJD\r\nREVG\n"), "ABCDEF");
    EXPECT_EQ(base64(std::string("Q U\tJ\0D-_!\xff", 11)), "ABC");
    for (int byte = 0; byte < 256; ++byte) {
        const auto c = static_cast<char>(byte);
        if (std::isalnum(byte) || c == '+' || c == '/' || c == '=')
            continue;
        EXPECT_EQ(base64(std::string("QU") + c + "JD"), "ABC") << byte;
    }
}

TEST(DwDecodeBase64, EndsAtTheFirstEqualsSign) {
    EXPECT_EQ(base64("QUJD=REVG"), "ABC");
    EXPECT_EQ(base64("=QUJD"), "");
    EXPECT_EQ(base64("QQ==QUJD"), "A");
}

TEST(DwDecodeBase64, SymbolsLeftOver) {
    EXPECT_EQ(base64("QUJDR"), "ABC");
    EXPECT_EQ(base64("QUJDRE"), "ABCD");
    EXPECT_EQ(base64("QUJDREV"), "ABCDE");
    EXPECT_EQ(base64("QQ=="), "A");
    EXPECT_EQ(base64("QUI="), "AB");
}

TEST(DwDecodeBase64, TellsWhetherTheInputWasMalformed) {
    DwString decoded;
    EXPECT_EQ(DwDecodeBase64("QUJD\r\n QQ==\n", decoded), 0);
    EXPECT_EQ(DwDecodeBase64("", decoded), 0);
    EXPECT_NE(DwDecodeBase64("QUJD!", decoded), 0);
    EXPECT_NE(DwDecodeBase64("QUJDR", decoded), 0);
}

TEST(DwDecodeQuotedPrintable, EscapesAreBytes) {
    EXPECT_EQ(printable(quoted_printable("=41=3d=3D=C3=a9=00=0A")),
              printable(std::string("A==\xc3\xa9\0\n", 7)));
}

TEST(DwDecodeQuotedPrintable, AnyOtherEqualsSignStays) {
    for (const char* text : {"a=4", "a=4Z", "a=G0", "a=ZZb", "a=4\nb", "= 41", "x = y", "==41"}) {
        const std::string wanted = std::string(text) == "==41" ? "=A" : text;
        EXPECT_EQ(quoted_printable(text), wanted);
    }
}

TEST(DwDecodeQuotedPrintable, BlanksAndCrAtALinesEndGo) {
    EXPECT_EQ(quoted_printable("a \t\r\r\n b \n\t\nc "), "a\n b\n\nc");
    EXPECT_EQ(quoted_printable("a\rb\r"), "a\rb");
    EXPECT_EQ(quoted_printable("a\v\n"), "a\v\n");
}

TEST(DwDecodeQuotedPrintable, AnEqualsSignAtALinesEndJoinsLines) {
    EXPECT_EQ(quoted_printable("a=\nb= \t\r\nc="), "abc");
    EXPECT_EQ(quoted_printable("a==\nb"), "a=b");
    EXPECT_EQ(quoted_printable("a=3D=\nb"), "a=b");
    EXPECT_EQ(quoted_printable("a =\nb"), "a b");
}

TEST(DwDecodeQuotedPrintable, NothingIsAddedAtTheEnd) {
    EXPECT_EQ(quoted_printable("a"), "a");
    EXPECT_EQ(quoted_printable("a\n"), "a\n");
    EXPECT_EQ(quoted_printable(""), "");
    EXPECT_EQ(quoted_printable("\n\n"), "\n\n");
}

TEST(DwDecodeQuotedPrintable, EightBitBytesAndNulStay) {
    std::string all;
    for (int byte = 255; byte >= 0; --byte) // LF before tab: no blank ends the line
        all += static_cast<char>(byte);
    EXPECT_EQ(printable(quoted_printable(all)), printable(all));
}

TEST(DwDecodeQuotedPrintable, RunsOfEveryLengthAreCopied) {
    for (size_t length = 0; length < 40; ++length) {
        const std::string run(length, 'x');
        EXPECT_EQ(quoted_printable(run + "=3D" + run + "=\n" + run), run + "=" + run + run);
    }
}

TEST(DwDecodeQuotedPrintable, TellsWhetherTheInputWasMalformed) {
    DwString decoded;
    EXPECT_EQ(DwDecodeQuotedPrintable("a=3D\nb=\nc \r\n", decoded), 0);
    EXPECT_NE(DwDecodeQuotedPrintable("a=3", decoded), 0);
    EXPECT_NE(DwDecodeQuotedPrintable("a=\x80\x80", decoded), 0);
}

TEST(DwDecoders, MayWriteToTheirSource) {
    DwString text("QUJD");
    DwDecodeBase64(text, text);
    EXPECT_TRUE(text == "ABC");
    text = "a=3Db";
    DwDecodeQuotedPrintable(text, text);
    EXPECT_TRUE(text == "a=b");
}

TEST(DwDecoders, LeaveCopiesOfTheOldTargetAlone) {
    DwString target("old");
    const DwString copy = target;
    DwDecodeBase64("QUJD", target);
    EXPECT_TRUE(copy == "old");
}

} // namespace
