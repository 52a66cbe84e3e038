#include "lib/text/base64.h"

#include "tests/twins/text_random.h"
#include "tests/twins/text_twins.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

const unsigned char* unsigned_bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// What base64Encode gives, from and to heap blocks of exactly the promised sizes.
std::string encoded(const std::string& bytes) {
    const size_t room = 4 * ((bytes.size() + 2) / 3) + 1;
    const auto in = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), in.get());
    const auto out = std::make_unique<char[]>(room);
    std::fill_n(out.get(), room, '#');
    const int written = base64Encode(in.get(), static_cast<unsigned>(bytes.size()), out.get());
    EXPECT_EQ(static_cast<size_t>(written), room - 1);
    EXPECT_EQ(out[room - 1], '\0') << "no NUL behind the text";
    return {out.get(), static_cast<size_t>(written)};
}

// What base64ArrayDecode gives, likewise.
std::string decoded(const std::string& text) {
    const size_t room = 3 * text.size() / 4;
    const auto in = std::make_unique<char[]>(text.size());
    std::copy(text.begin(), text.end(), in.get());
    const auto out = std::make_unique<unsigned char[]>(room);
    std::fill_n(out.get(), room, static_cast<unsigned char>('#'));
    const unsigned written =
        base64ArrayDecode(in.get(), static_cast<unsigned>(text.size()), out.get());
    for (size_t i = written; i < room; ++i)
        EXPECT_EQ(out[i], '#') << "byte " << i << " behind the result was written";
    return {reinterpret_cast<const char*>(out.get()), written};
}

} // namespace

TEST(Base64Encode, ThreeBytesGiveFourCharacters) {
    EXPECT_EQ(encoded("ABC"), "QUJD");
}

TEST(Base64Encode, OneByteGetsTwoPads) {
    EXPECT_EQ(encoded("A"), "QQ==");
}

TEST(Base64Encode, TwoBytesGetOnePad) {
    EXPECT_EQ(encoded("AB"), "QUI=");
}

TEST(Base64Encode, NothingGivesAnEmptyText) {
    EXPECT_EQ(encoded(""), "");
}

TEST(Base64Encode, NothingMayBeANullPointer) {
    char out = '#';
    EXPECT_EQ(base64Encode(nullptr, 0, &out), 0);
    EXPECT_EQ(out, '\0');
}

TEST(Base64Encode, AllBitsSet) {
    EXPECT_EQ(encoded("\xff\xff\xff\xff\xff"), "//////8=");
}

TEST(Base64Encode, NulBytes) {
    EXPECT_EQ(encoded(std::string(4, '\0')), "AAAAAA==");
}

TEST(Base64Encode, EveryCharacterOfTheAlphabetInOrder) {
    std::string bytes;
    for (unsigned value = 0; value < 64; value += 4) {
        const unsigned group = value << 18 | (value + 1) << 12 | (value + 2) << 6 | (value + 3);
        bytes += {static_cast<char>(group >> 16), static_cast<char>(group >> 8),
                  static_cast<char>(group)};
    }
    EXPECT_EQ(encoded(bytes), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(Base64Encode, FiftySevenBytesGiveOneLineOfSeventySix) {
    const std::string text = encoded(std::string(57, 'x'));
    EXPECT_EQ(text.size(), 76U);
    EXPECT_EQ(text.find_first_of("\r\n="), std::string::npos) << text;
}

TEST(Base64Encode, AThousandBytesHaveNoLineBreak) {
    const std::string text = encoded(std::string(1000, 'x'));
    EXPECT_EQ(text.size(), 1336U);
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos) << text;
}

TEST(Base64Encode, InPlaceGivesTheSameText) {
    for (unsigned len = 0; len <= 300; ++len) {
        std::string bytes;
        for (unsigned i = 0; i < len; ++i)
            bytes += static_cast<char>(i * 37 + len);
        std::string buffer = bytes;
        buffer.resize(4 * ((len + 2) / 3) + 1, '#');
        const int written = base64Encode(unsigned_bytes(buffer), len, buffer.data());
        EXPECT_EQ(buffer.substr(0, static_cast<size_t>(written)), twin::base64_encode(bytes))
            << "length " << len;
        EXPECT_EQ(buffer.back(), '\0') << "length " << len;
    }
}

TEST(Base64ArrayDecode, OneWholeGroup) {
    EXPECT_EQ(decoded("QUJD"), "ABC");
}

TEST(Base64ArrayDecode, TwoPadsGiveOneByte) {
    EXPECT_EQ(decoded("QQ=="), "A");
}

TEST(Base64ArrayDecode, OnePadGivesTwoBytes) {
    EXPECT_EQ(decoded("QUI="), "AB");
}

TEST(Base64ArrayDecode, WholeGroupsBeforeAPaddedOne) {
    EXPECT_EQ(decoded("QUJDQUI="), "ABCAB");
    EXPECT_EQ(decoded("QUJDQQ=="), "ABCA");
    EXPECT_EQ(decoded("QUJDQUJD"), "ABCABC");
}

TEST(Base64ArrayDecode, ThePadBeforeTheLastCharacterDecides) {
    EXPECT_EQ(decoded("QQ=A"), "A");
}

TEST(Base64ArrayDecode, ACharacterOutsideTheAlphabetSpoilsItsNeighbours) {
    // 255 in the place of the second digit: 010000 | 11 111111 | 001001 000011
    EXPECT_EQ(decoded("Q!JD"), "\x4f\xf2\x43");
    EXPECT_EQ(decoded("Q!JDQUJD"), "\x4f\xf2\x43"
                                   "ABC");
}

TEST(Base64ArrayDecode, AByteOfTheUpperHalfIsNoIndexBeforeTheTable) {
    EXPECT_EQ(decoded("Q\xffJD"), decoded("Q!JD"));
    EXPECT_EQ(decoded("Q\x80JD"), decoded("Q!JD"));
}

TEST(Base64ArrayDecode, LengthsThatAreNoMultipleOfFourAreRefused) {
    for (const char* text : {"", "Q", "QQ", "QQ=", "=", "==", "QUJDQ", "QUJDQU", "QUJDQUI"})
        EXPECT_EQ(decoded(text), "") << text;
}

TEST(Base64ArrayDecode, OnlyPads) {
    EXPECT_EQ(decoded("====").size(), 1U);
    EXPECT_EQ(decoded("A===").size(), 1U);
}

TEST(Base64Decode, TakesTheLengthFromTheNul) {
    unsigned char out[6];
    EXPECT_EQ(base64Decode("QUJDQQ==\0QUJD", out), 4U);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 4), "ABCA");
    EXPECT_EQ(base64Decode("", out), 0U);
}

TEST(Base64Twins, EncodingAgreesAndDecodesBack) {
    twin::Random random("Base64Twins");
    for (int i = 0; i < 100'000; ++i) {
        const std::string bytes = random.bytes(random.below(random.below(50) == 0 ? 600 : 40));
        const std::string text = encoded(bytes);
        ASSERT_EQ(text, twin::base64_encode(bytes)) << testing::PrintToString(bytes);
        ASSERT_EQ(decoded(text), bytes) << text;
    }
}

TEST(Base64Twins, DecodingOfAnythingAgrees) {
    twin::Random random("Base64Twins");
    const std::vector<std::string> pieces = {"QUJD", "QQ==", "QUI=", "=", "A", "/", "+9", "zz"};
    for (int i = 0; i < 100'000; ++i) {
        const std::string text = random.mix(pieces, 10);
        ASSERT_EQ(decoded(text), twin::base64_array_decode(text)) << testing::PrintToString(text);
    }
}
