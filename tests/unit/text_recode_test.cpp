#include "lib/text/text_encoding.h"

#include "tests/twins/text_outcome.h"
#include "tests/twins/text_random.h"
#include "tests/twins/text_twins.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using quarx::iconvRecode;
using quarx::iconvRecodePieces;
using twin::Outcome;
using twin::outcome_of;
using twin::repeated;
using twin::runtime_error;
using twin::text;

// The linker puts the __wrap_ functions in the place of the C library's (--wrap), so that a test
// can watch the calls and make one fail that never does by itself.
namespace {

struct IconvCalls {
    int opened = 0;
    int closed = 0;
    int close_result = 0;
    std::string to;
    std::string from;

    size_t calls = 0;
    size_t bytes_shown = 0;
    bool errno_was_clear = true;
    bool room_was_4096 = true;
    bool flushed = false;
    // Plays iconv(3) when set; the descriptor is left alone.
    std::function<size_t(char** in, size_t* in_left, char** out, size_t* out_left)> player;
} iconv_calls;

} // namespace

extern "C" {
iconv_t __real_iconv_open(const char* to, const char* from);
size_t __real_iconv(iconv_t cd, char** in, size_t* in_left, char** out, size_t* out_left);
int __real_iconv_close(iconv_t cd);

iconv_t __wrap_iconv_open(const char* to, const char* from) {
    iconv_calls.to = to;
    iconv_calls.from = from;
    const iconv_t cd = __real_iconv_open(to, from);
    if (cd != reinterpret_cast<iconv_t>(-1))
        ++iconv_calls.opened;
    return cd;
}

size_t __wrap_iconv(iconv_t cd, char** in, size_t* in_left, char** out, size_t* out_left) {
    ++iconv_calls.calls;
    iconv_calls.errno_was_clear = iconv_calls.errno_was_clear && errno == 0;
    iconv_calls.room_was_4096 = iconv_calls.room_was_4096 && *out_left == 4096;
    iconv_calls.flushed = iconv_calls.flushed || in == nullptr || *in == nullptr;
    iconv_calls.bytes_shown += *in_left;
    if (iconv_calls.player)
        return iconv_calls.player(in, in_left, out, out_left);
    return __real_iconv(cd, in, in_left, out, out_left);
}

int __wrap_iconv_close(iconv_t cd) {
    ++iconv_calls.closed;
    const int result = __real_iconv_close(cd);
    if (iconv_calls.close_result == 0)
        return result;
    errno = EBADF;
    return iconv_calls.close_result;
}
}

namespace {

Outcome recoded(const std::string& text, const std::string& from, const std::string& to,
                bool skip = true) {
    return outcome_of([&] { return iconvRecode(text, from, to, skip); });
}

// Every test also sees that each descriptor it opened was closed, once.
class Watched : public testing::Test {
protected:
    void SetUp() override { iconv_calls = IconvCalls{}; }
    void TearDown() override { EXPECT_EQ(iconv_calls.closed, iconv_calls.opened); }
};

class IconvRecode : public Watched {};
class EveryCharset : public Watched {};

} // namespace

// ---- iconvRecode

TEST_F(IconvRecode, EmptyTextOpensAndClosesADescriptor) {
    EXPECT_EQ(recoded("", "iso-8859-1", "utf-8"), text(""));
    EXPECT_EQ(iconv_calls.opened, 1);
    EXPECT_EQ(iconv_calls.closed, 1);
    EXPECT_EQ(iconv_calls.calls, 0U);
}

TEST_F(IconvRecode, UnknownSourceCannotConvertEvenNothing) {
    EXPECT_EQ(recoded("", "x-none", "utf-8"), runtime_error("Cannot convert from x-none to utf-8"));
    EXPECT_EQ(recoded("a", "x-none", "utf-8"),
              runtime_error("Cannot convert from x-none to utf-8"));
}

TEST_F(IconvRecode, UnknownTargetCannotConvert) {
    EXPECT_EQ(recoded("a", "utf-8", "x-none"),
              runtime_error("Cannot convert from utf-8 to x-none"));
}

TEST_F(IconvRecode, UnknownCharsetLeavesTheErrorNumber) {
    errno = 0;
    recoded("a", "x-none", "utf-8");
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IconvRecode, OpensTheTargetFirst) {
    EXPECT_EQ(recoded("\xfc", "iso-8859-1", "utf-8"), text("ü"));
    EXPECT_EQ(iconv_calls.to, "utf-8");
    EXPECT_EQ(iconv_calls.from, "iso-8859-1");
    EXPECT_EQ(recoded("ü", "utf-8", "iso-8859-1"), text("\xfc"));
}

TEST_F(IconvRecode, KeepsNulBytesOfTheText) {
    const std::string bytes("a\0b\0", 4);
    EXPECT_EQ(recoded(bytes, "iso-8859-1", "utf-8"), text(bytes));
}

TEST_F(IconvRecode, EachByteOfAnInvalidSequenceBecomesAQuestionMark) {
    EXPECT_EQ(recoded("\xff", "utf-8", "utf-8"), text("?"));
    EXPECT_EQ(recoded("a\xff\xfe"
                      "b",
                      "utf-8", "utf-8"),
              text("a??b"));
    EXPECT_EQ(recoded("\xc3(", "utf-8", "utf-8"), text("?("));
    EXPECT_EQ(recoded("\xe4\xb8(", "utf-8", "utf-8"), text("?"
                                                           "?("));
    EXPECT_EQ(recoded("ab\xff", "utf-8", "utf-8"), text("ab?"));
}

TEST_F(IconvRecode, EachByteOfACharacterThatTheTargetLacksBecomesAQuestionMark) {
    EXPECT_EQ(recoded("aüb", "utf-8", "us-ascii"), text("a??b"));
    EXPECT_EQ(recoded("中", "utf-8", "iso-8859-1"), text("???"));
    EXPECT_EQ(recoded("\x80", "us-ascii", "utf-8"), text("?"));
}

TEST_F(IconvRecode, InvalidSequenceFailsWithoutSkipping) {
    EXPECT_EQ(recoded("a\xff"
                      "b",
                      "utf-8", "utf-8", false),
              runtime_error("Conversion from utf-8 to utf-8"));
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(recoded("ü", "utf-8", "us-ascii", false),
              runtime_error("Conversion from utf-8 to us-ascii"));
}

TEST_F(IconvRecode, ValidTextNeedsNoSkipping) {
    EXPECT_EQ(recoded("gr\xfc\xdf"
                      "e",
                      "iso-8859-1", "utf-8", false),
              text("grüße"));
}

TEST_F(IconvRecode, SequenceCutOffByTheEndFailsInBothModes) {
    for (const bool skip : {false, true}) {
        for (const char* cut : {"\xc3", "a\xc3", "a\xe4\xb8", "\xf0\x9f\x98"}) {
            EXPECT_EQ(recoded(cut, "utf-8", "utf-16le", skip),
                      runtime_error("Conversion from utf-8 to utf-16le"));
            EXPECT_EQ(errno, EINVAL);
        }
    }
}

TEST_F(IconvRecode, AnyOtherErrorFails) {
    iconv_calls.player = [](char**, size_t*, char**, size_t*) {
        errno = EBADF;
        return size_t{0};
    };
    EXPECT_EQ(recoded("a", "utf-8", "latin1"), runtime_error("Conversion from utf-8 to latin1"));
    EXPECT_EQ(errno, EBADF);
}

TEST_F(IconvRecode, TheReturnValueOfIconvIsNotLookedAt) {
    iconv_calls.player = [](char** in, size_t* in_left, char** out, size_t* out_left) {
        **out = static_cast<char>(std::toupper(**in));
        ++*in, --*in_left, ++*out, --*out_left;
        return static_cast<size_t>(-1);
    };
    EXPECT_EQ(recoded("abc", "utf-8", "latin1"), text("ABC"));
}

TEST_F(IconvRecode, ACallThatWouldRepeatForEverFails) {
    for (const int error : {0, E2BIG}) {
        iconv_calls.player = [error](char**, size_t*, char** out, size_t* out_left) {
            **out = 'x';
            ++*out, --*out_left;
            errno = error;
            return size_t{0};
        };
        EXPECT_EQ(recoded("a", "utf-8", "latin1"),
                  runtime_error("Conversion from utf-8 to latin1"));
        EXPECT_EQ(errno, error != 0 ? error : EINVAL);
    }
}

TEST_F(IconvRecode, InvalidWithNothingLeftStopsThere) {
    iconv_calls.player = [](char** in, size_t* in_left, char** out, size_t* out_left) {
        **out = 'x';
        ++*out, --*out_left;
        *in += *in_left;
        *in_left = 0;
        errno = EILSEQ;
        return size_t{0};
    };
    EXPECT_EQ(recoded("abc", "utf-8", "latin1"), text("x"));
    EXPECT_EQ(recoded("abc", "utf-8", "latin1", false),
              runtime_error("Conversion from utf-8 to latin1"));
}

TEST_F(IconvRecode, TargetsWithIgnoreDropWhatTheyLack) {
    EXPECT_EQ(recoded("aü", "utf-8", "us-ascii//IGNORE"), text("a"));
    EXPECT_EQ(recoded("ü", "utf-8", "us-ascii//IGNORE"), text(""));
    EXPECT_EQ(recoded("ü", "utf-8", "us-ascii//IGNORE", false),
              runtime_error("Conversion from utf-8 to us-ascii//IGNORE"));
}

TEST_F(IconvRecode, TargetsWithTranslitWriteItOut) {
    EXPECT_EQ(recoded("3 €", "utf-8", "us-ascii//TRANSLIT"), text("3 EUR"));
}

TEST_F(IconvRecode, FailureOfTheCloseNamesUtf8WhateverTheTarget) {
    iconv_calls.close_result = -1;
    EXPECT_EQ(recoded("a", "latin1", "us-ascii"),
              runtime_error("Closing conversion from latin1 to utf-8 failed"));
    EXPECT_EQ(recoded("", "utf-8", "latin1"),
              runtime_error("Closing conversion from utf-8 to utf-8 failed"));
}

TEST_F(IconvRecode, FailureOfTheCloseIsNothingBehindAnotherFailure) {
    iconv_calls.close_result = -1;
    EXPECT_EQ(recoded("\xff", "utf-8", "utf-8", false),
              runtime_error("Conversion from utf-8 to utf-8"));
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(recoded("", "x-none", "utf-8"), runtime_error("Cannot convert from x-none to utf-8"));
}

TEST_F(IconvRecode, NoClosingShiftSequence) {
    EXPECT_EQ(recoded("語", "utf-8", "iso-2022-jp"), text("\x1b$B8l"));
    EXPECT_FALSE(iconv_calls.flushed);
}

TEST_F(IconvRecode, ErrnoIsClearedBeforeEachCallIntoABufferOf4096) {
    errno = EILSEQ;
    recoded(repeated("a\xff中", 5000), "utf-8", "utf-16");
    EXPECT_GT(iconv_calls.calls, 5000U);
    EXPECT_TRUE(iconv_calls.errno_was_clear);
    EXPECT_TRUE(iconv_calls.room_was_4096);
}

TEST_F(IconvRecode, TextThatFillsTheBufferGoesOn) {
    for (const char* from : {"utf-8", "us-ascii"})
        for (const size_t count : {1023U, 1024U, 1025U, 5000U})
            EXPECT_EQ(
                recoded(repeated("a", count), from, "utf-32"),
                text(std::string("\xff\xfe\0\0", 4) + repeated(std::string("a\0\0\0", 4), count)));
}

TEST_F(IconvRecode, StateOfTheTextOutlivesACall) {
    std::string utf16 = "\xff\xfe";
    for (int i = 0; i < 9000; ++i)
        utf16 += {'a', '\0'};
    EXPECT_EQ(recoded(utf16, "utf-16", "utf-8"), text(repeated("a", 9000)));
    EXPECT_EQ(recoded(repeated("a", 9000), "utf-8", "utf-16"), text(utf16));
    EXPECT_EQ(recoded("\x1b$B" + repeated("8l", 9000) + "\x1b(B", "iso-2022-jp", "utf-8"),
              text(repeated("語", 9000)));
}

// One character more or less decides where the calls and the buffer end.
TEST_F(IconvRecode, LengthsAboutTheBufferAndTheWindow) {
    for (const size_t middle : {16U, 32U, 341U, 512U, 1024U, 1365U, 2048U, 4096U, 8192U}) {
        for (size_t count = middle - 2; count <= middle + 2; ++count) {
            EXPECT_EQ(recoded(repeated("a", count), "latin1", "utf-8"), text(repeated("a", count)));
            EXPECT_EQ(recoded(repeated("\xfc", count), "latin1", "utf-8"),
                      text(repeated("ü", count)));
            EXPECT_EQ(recoded(repeated("中", count), "utf-8", "utf-8"),
                      text(repeated("中", count)));
            EXPECT_EQ(recoded("a" + repeated("中", count), "utf-8", "utf-8"),
                      text("a" + repeated("中", count)));
            EXPECT_EQ(recoded(repeated("a", count) + "\xff"
                                                     "b",
                              "utf-8", "utf-8"),
                      text(repeated("a", count) + "?b"));
            EXPECT_EQ(recoded(repeated("a", count) + "\xe4\xb8", "utf-8", "utf-8"),
                      runtime_error("Conversion from utf-8 to utf-8"));
            EXPECT_EQ(recoded("\xff" + repeated("a", count) + "中", "utf-8", "utf-8"),
                      text("?" + repeated("a", count) + "中"));
        }
    }
}

TEST_F(IconvRecode, SequenceLongerThanTheWindowIsShownWhole) {
    size_t taken = 0;
    iconv_calls.player = [&](char** in, size_t* in_left, char**, size_t*) {
        const bool whole = *in_left == 5000;
        errno = whole ? 0 : EINVAL;
        if (whole) {
            taken = *in_left;
            *in += *in_left;
            *in_left = 0;
        }
        return size_t{0};
    };
    EXPECT_EQ(recoded(repeated("a", 5000), "utf-8", "latin1"), text(""));
    EXPECT_EQ(taken, 5000U);
}

TEST_F(IconvRecode, EmptyCharsetNameIsTheLocales) {
    EXPECT_EQ(recoded("abc", "", "utf-8"), text("abc"));
    EXPECT_EQ(recoded("abc", "utf-8", ""), text("abc"));
    EXPECT_EQ(recoded("\x80", "", "utf-8"), text("?"));
}

TEST_F(IconvRecode, CharsetNameIsReadUpToItsNul) {
    EXPECT_EQ(recoded("\xfc", std::string("latin1\0x", 8), "utf-8"), text("ü"));
    EXPECT_EQ(recoded("a", std::string("x\0y", 3), "utf-8"),
              (Outcome{"", "runtime_error: Cannot convert from x", ""}));
}

TEST_F(IconvRecode, CharsetNameIsNoPath) {
    for (const char* name : {"../../../etc/passwd", "/etc/passwd", "/tmp/x//", "./UTF-16.so",
                             "UTF-16.so", "/usr/lib/x86_64-linux-gnu/gconv/UTF-16.so", "a/b/c/d"})
        EXPECT_EQ(recoded("a", name, "utf-8").failure,
                  std::string("runtime_error: Cannot convert from ") + name + " to utf-8");
}

TEST_F(IconvRecode, CharsetNameOf256BytesIsTriedALongerOneIsUnknown) {
    const std::string longest = "latin1" + repeated("/", 250);
    EXPECT_EQ(recoded("\xfc", longest, "utf-8"), text("ü"));
    EXPECT_EQ(recoded("ü", "utf-8", longest), text("\xfc"));
    iconv_calls.opened = iconv_calls.closed = 0;
    errno = 0;
    EXPECT_EQ(recoded("a", longest + "/", "utf-8"),
              runtime_error("Cannot convert from " + longest + "/ to utf-8"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(recoded("a", "utf-8", longest + "/"),
              runtime_error("Cannot convert from utf-8 to " + longest + "/"));
    EXPECT_EQ(iconv_calls.opened, 0);
    EXPECT_EQ(recoded("a", std::string("latin1\0", 7) + repeated("x", 300), "utf-8"), text("a"));
}

TEST_F(IconvRecode, CharsetNamesOfAnyLengthEnd) {
    const std::clock_t start = std::clock();
    for (const std::string piece :
         {"x", "/", ",", "IGNORE,", "//IGNORE", "//TRANSLIT", "../", "-"}) {
        const std::string name = "utf-8//" + repeated(piece, 1'000'000 / piece.size());
        EXPECT_EQ(recoded("a", name, "utf-8"),
                  runtime_error("Cannot convert from " + name + " to utf-8"));
        for (size_t length = 200; length <= 256; ++length)
            recoded("a", name.substr(0, length), "utf-8");
    }
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    EXPECT_LT(seconds, 60.0) << "processor time";
}

TEST_F(IconvRecode, Utf7FallsBackFromAnInvalidCharacterAsInOneCall) {
    const std::string invalid = "+AbiBTY2htK0FQd1f+"; // a low surrogate alone
    for (const char* name : {"utf-7", "UTF7", "utf 7"})
        for (size_t before = 1000; before < 1030; ++before) {
            const std::string text = std::string(before, 'a') + invalid + "\xff" + invalid + " b";
            const Outcome wanted =
                outcome_of([&] { return twin::recode(text, name, "utf-8", true); });
            ASSERT_EQ(recoded(text, name, "utf-8"), wanted) << name << " behind " << before;
        }
}

TEST_F(IconvRecode, Utf7WithoutBlanksIsNotReadOverAndOver) {
    for (const char* invalid : {"\xff", "+3AA-", "+3AA"}) {
        const std::string text = repeated(invalid, 1'000'000);
        iconv_calls.bytes_shown = 0;
        recoded(text, "utf-7", "utf-8");
        EXPECT_LE(iconv_calls.bytes_shown, 32 * text.size() + (size_t{16} << 20)) << invalid;
    }
}

TEST_F(IconvRecode, LetterHeldBackForItsMarkIsNotLost) {
    const std::string letter = "か\xe3\x82\x9a"; // U+304B U+309A
    for (const char* name : {"ibm1390", "CP1390", "IBM-1399"})
        for (size_t before = 1015; before < 1030; ++before)
            EXPECT_EQ(recoded(std::string(before, '1') + letter, "utf-8", name).text,
                      std::string(before, '\xf1') + "\x0e\xec\xb5")
                << name << " behind " << before;
}

TEST_F(IconvRecode, PiecesPutTogetherAreTheWhole) {
    const std::string text = repeated("a\xffü中", 5000);
    for (const char* from : {"utf-8", "latin1", "koi8-r"}) {
        std::string whole;
        size_t longest = 0;
        iconvRecodePieces(std::string_view(text), from, "utf-8", true, [&](std::string_view piece) {
            whole += piece;
            longest = std::max(longest, piece.size());
        });
        EXPECT_EQ(recoded(text, from, "utf-8").text, whole);
        EXPECT_LE(longest, 4096U);
    }
}

TEST_F(IconvRecode, PiecesFailAsTheWholeDoes) {
    const auto pieces = [](const char* text, const char* from, bool skip) {
        return outcome_of([&] {
            iconvRecodePieces(std::string_view(text), from, "utf-8", skip, [](std::string_view) {});
            return std::string();
        });
    };
    EXPECT_EQ(pieces("", "x-none", true), runtime_error("Cannot convert from x-none to utf-8"));
    EXPECT_EQ(pieces("a\xc3", "utf-8", true), runtime_error("Conversion from utf-8 to utf-8"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(pieces("\xff", "utf-8", false), runtime_error("Conversion from utf-8 to utf-8"));
    iconv_calls.close_result = -1;
    EXPECT_EQ(pieces("a", "latin1", true),
              runtime_error("Closing conversion from latin1 to utf-8 failed"));
}

TEST_F(IconvRecode, LongTextsThatGrowTakeNoMoreRoomThanTwiceTheirResult) {
    for (const std::string& piece : {std::string("a"), std::string("\xc1"), std::string("a\xc1")}) {
        const std::string result = iconvRecode(repeated(piece, 300000), "koi8-r", "utf-8", true);
        EXPECT_LE(result.capacity(), 2 * result.size()) << piece;
    }
}

TEST_F(IconvRecode, AgreesWithItsTwin) {
    twin::Random random("IconvRecode");
    const std::vector<std::string> charsets = {"utf-8",          "us-ascii",
                                               "iso-8859-1",     "utf-16",
                                               "utf-16be",       "ucs-4",
                                               "utf-7",          "big5",
                                               "gb18030",        "iso-2022-jp",
                                               "koi8-r",         "iso-2022-kr",
                                               "tscii",          "cp1255",
                                               "euc-jp",         "",
                                               "utf-8//IGNORE",  "us-ascii//TRANSLIT",
                                               "latin1//IGNORE", "x-none"};
    const std::vector<std::string> pieces = {
        "a",         "ü",      "中",       "\xff", "\xc3", "\xe4\xb8", "é",    "\xe0",
        "\x1b$B",    "\x1b(B", "8l",       "+AG",  "-",    "\x0e",     "\xd8", std::string(2, '\0'),
        "e\xcc\x81", "한",     "א\xd6\xb0"};
    for (int i = 0; i < 40'000; ++i) {
        const std::string input = random.mix(pieces, random.below(200) == 0 ? 900 : 20);
        const std::string from = random.below(3) == 0 ? "utf-8" : random.pick(charsets);
        const std::string to = random.below(3) == 0 ? "UTF-8" : random.pick(charsets);
        const bool skip = random.below(8) != 0;
        ASSERT_EQ(recoded(input, from, to, skip),
                  outcome_of([&] { return twin::recode(input, from, to, skip); }))
            << testing::PrintToString(input) << " from " << from << " to " << to;
    }
}

// ---- the charsets of this C library

namespace {

// One name of each charset that iconv(1) lists, its aliases in other spellings left out.
std::vector<std::string> charset_names() {
    std::vector<std::string> names;
    std::set<std::string> seen;
    const std::unique_ptr<FILE, int (*)(FILE*)> list(popen("iconv -l", "r"), pclose);
    char line[512];
    while (list != nullptr && std::fgets(line, sizeof line, list.get()) != nullptr) {
        std::istringstream words(line);
        for (std::string name; words >> name;) {
            name.erase(name.find_last_not_of(",/") + 1);
            std::string plain;
            for (const char c : name)
                if (std::isalnum(static_cast<unsigned char>(c)) != 0)
                    plain += static_cast<char>(std::toupper(c));
            if (seen.insert(plain).second)
                names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> hostile_texts(twin::Random& random, size_t size) {
    const std::vector<std::string> shifts = {
        "\x1b$B",  "\x1b(B", "\x1b$A", "\x1b$)C", "\x1b$(D", "\x1b$)A", "\x1b$)G", "\x1b$*H",
        "\x1b(J",  "\x1bN",  "\x1bO",  "\x0e",    "\x0f",    "~{",      "~}",      "+AGE-",
        "\x1b$(Q", "\x1b.A", "\x1b(I", "\n",      "ab",      "\xa4\xa4"};
    const std::vector<std::string> letters = {"a", "e\xcc\x81", "ü",    "中", "語", "한",
                                              "😀", "א\xd6\xb0", "\xc3", "€",  "ệ"};
    std::vector<std::string> texts = {random.bytes(size),
                                      std::string(size, '\0'),
                                      std::string(size, '\xff'),
                                      std::string(size, '\x0e'),
                                      repeated("\x0e\x0f", size / 2),
                                      repeated("\xd8\xd8\0\0", size / 4),
                                      repeated(std::string("\0\xd8\0\0", 4), size / 4),
                                      repeated(std::string("\0\0\xd8\0", 4), size / 4),
                                      repeated("\xaa\xaa", size / 2)};
    for (const auto* pieces : {&shifts, &letters}) {
        std::string mixed;
        while (mixed.size() < size)
            mixed += random.pick(*pieces);
        texts.push_back(mixed);
    }
    std::string upper = random.bytes(size);
    for (char& c : upper)
        c = static_cast<char>(c | '\x80');
    texts.push_back(upper);
    return texts;
}

// Sees that one recoding ends as its twin does, and that it stays in its limits.
void expect_in_limits(const std::string& input, const std::string& from, const std::string& to) {
    iconv_calls.calls = iconv_calls.bytes_shown = 0;
    const Outcome got = recoded(input, from, to);
    EXPECT_LE(iconv_calls.calls, 2 * input.size() + 16) << from << " to " << to;
    if (to.find('/') == std::string::npos) {
        // In UTF-7 pieces end behind blanks, as long as that shows no more than this in vain.
        const size_t patience = from.find("UTF-7") == 0 ? size_t{16} << 20 : 0;
        EXPECT_LE(iconv_calls.bytes_shown, 32 * input.size() + 4096 + patience)
            << from << " to " << to;
    }
    EXPECT_LE(got.text.size(), 16 * input.size() + 64) << from << " to " << to;
    const Outcome wanted = outcome_of([&] { return twin::recode(input, from, to, true); });
    EXPECT_EQ(got, wanted) << from << " to " << to << ": " << testing::PrintToString(input);
}

} // namespace

TEST_F(EveryCharset, HostileBytesToUtf8EndInLimits) {
    twin::Random random("EveryCharset.HostileBytesToUtf8");
    const std::vector<std::string> names = charset_names();
    ASSERT_GT(names.size(), 200U) << "iconv -l gave too few charsets";
    for (const std::string& name : names)
        for (const std::string& input : hostile_texts(random, 1100)) {
            expect_in_limits(input, name, "utf-8");
            if (HasFailure())
                return;
        }
}

TEST_F(EveryCharset, HostileSuffixesOfTheSourceEndInLimits) {
    twin::Random random("EveryCharset.HostileSuffixes");
    for (const std::string& name : charset_names())
        for (const char* suffix : {"//IGNORE", "//TRANSLIT", "//TRANSLIT//IGNORE", "//", "/,"}) {
            expect_in_limits(random.bytes(100), name + suffix, "utf-8");
            if (HasFailure())
                return;
        }
}

TEST_F(EveryCharset, AnyTextToItEndsInLimits) {
    twin::Random random("EveryCharset.AnyTextToIt");
    for (const std::string& name : charset_names())
        for (const char* suffix : {"", "//IGNORE", "//TRANSLIT", "//TRANSLIT//IGNORE"})
            for (const std::string& input : hostile_texts(random, 100)) {
                expect_in_limits(input, "utf-8", name + suffix);
                if (HasFailure())
                    return;
            }
}

TEST_F(EveryCharset, LargestExpansionStaysInItsLimit) {
    const std::string tscii = recoded(std::string(100'000, '\x82'), "tscii", "utf-8").text;
    EXPECT_GT(tscii.size(), 300'000U);
    EXPECT_LE(tscii.size(), 1'600'000U);
}
