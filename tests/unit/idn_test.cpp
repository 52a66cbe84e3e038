#include "lib/text/idn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

using quarx::idn::emailToAscii;
using quarx::idn::idn_strerror;
using quarx::idn::IdnaError;
using quarx::idn::toAscii;
using quarx::idn::toUtf8;

// The linker puts these in the place of libidn's functions (--wrap), so that a test can see the
// arguments and make libidn answer what it seldom does.
namespace {

struct Libidn {
    bool faked = false;
    int code = 0;
    bool gives_text = false;
    int calls = 0;
    std::string name;
    int flags = -1;

    int answer(const char* given, char** out, int given_flags,
               int (*real)(const char*, char**, int)) {
        ++calls;
        name = given;
        flags = given_flags;
        if (!faked)
            return real(given, out, given_flags);
        *out = gives_text ? strdup("a text to free") : nullptr;
        return code;
    }
} libidn;

class Idn : public testing::Test {
protected:
    void SetUp() override { libidn = Libidn{}; }
};

// The code that `convert(name)` throws as an IdnaError, -1 if it throws none.
int code_thrown(std::string (*convert)(const std::string&), const std::string& name) {
    try {
        convert(name);
    } catch (const IdnaError& error) {
        EXPECT_STREQ(error.what(), idn_strerror(error.code()));
        return error.code();
    }
    return -1;
}

} // namespace

extern "C" {
int __real_idna_to_ascii_8z(const char*, char**, int);
int __real_idna_to_unicode_8z8z(const char*, char**, int);
int __wrap_idna_to_ascii_8z(const char* name, char** out, int flags) {
    return libidn.answer(name, out, flags, __real_idna_to_ascii_8z);
}
int __wrap_idna_to_unicode_8z8z(const char* name, char** out, int flags) {
    return libidn.answer(name, out, flags, __real_idna_to_unicode_8z8z);
}
}

TEST_F(Idn, MessageOfEachCode) {
    const struct {
        int code;
        const char* text;
    } rows[] = {
        {0, "Success"},
        {1, "Stringprep error"},
        {2, "Punycode error"},
        {3, "Contains non-LDH characters"},
        {4, "Contains minus"},
        {5, "Invalid length"},
        {6, "ACE prefix not found"},
        {7, "Verify error"},
        {8, "ACE prefix found"},
        {9, "Iconv error"},
        {201, "Cannot allocate buffer"},
        {-1, "Unknown error"},
        {10, "Unknown error"},
        {200, "Unknown error"},
        {202, "Unknown error"},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(idn_strerror(row.code), row.text) << "code " << row.code;
        EXPECT_STREQ(IdnaError(row.code).what(), row.text) << "code " << row.code;
        EXPECT_EQ(IdnaError(row.code).code(), row.code);
    }
}

TEST_F(Idn, ErrorIsAStandardException) {
    try {
        throw IdnaError(5);
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "Invalid length");
    }
}

TEST_F(Idn, AsciiFormTouchesOnlyTheLabelThatNeedsIt) {
    EXPECT_EQ(toAscii("www.bücher.example"), "www.xn--bcher-kva.example");
}

TEST_F(Idn, Utf8FormIsTheWayBack) {
    EXPECT_EQ(toUtf8("www.xn--bcher-kva.example"), "www.bücher.example");
}

TEST_F(Idn, PlainNameIsUnchanged) {
    EXPECT_EQ(toAscii("mail.example.com"), "mail.example.com");
    EXPECT_EQ(toUtf8("mail.example.com"), "mail.example.com");
    EXPECT_EQ(toAscii(""), "");
    EXPECT_EQ(toUtf8(""), "");
}

TEST_F(Idn, HostNameRulesAreOff) {
    EXPECT_EQ(toAscii("a_b@c d.example"), "a_b@c d.example");
}

TEST_F(Idn, UnassignedCodePointsAreRefused) {
    EXPECT_EQ(code_thrown(toAscii, "\xc8\xa1.example"), 1); // U+0221: not in Unicode 3.2
}

TEST_F(Idn, LibidnIsCalledOnceWithTheNameAndNoFlags) {
    toAscii("bücher");
    EXPECT_EQ(libidn.name, "bücher");
    EXPECT_EQ(libidn.flags, 0);
    EXPECT_EQ(libidn.calls, 1);
    toUtf8("xn--bcher-kva");
    EXPECT_EQ(libidn.name, "xn--bcher-kva");
    EXPECT_EQ(libidn.flags, 0);
    EXPECT_EQ(libidn.calls, 2);
}

TEST_F(Idn, WholeAddressIsTakenAsAName) {
    EXPECT_EQ(toAscii("info@bücher.example"), "xn--info@bcher-feb.example");
}

TEST_F(Idn, NameEndsAtItsFirstNul) {
    EXPECT_EQ(toAscii(std::string("bücher\0.example", 16)), "xn--bcher-kva");
}

TEST_F(Idn, LabelOfSixtyThreeCharactersPasses) {
    const std::string label(63, 'a');
    EXPECT_EQ(toAscii(label + ".example"), label + ".example");
}

TEST_F(Idn, LongerLabelHasAnInvalidLength) {
    try {
        toAscii(std::string(64, 'a') + ".example");
        FAIL() << "nothing was thrown";
    } catch (const IdnaError& error) {
        EXPECT_EQ(error.code(), 5);
        EXPECT_STREQ(error.what(), "Invalid length");
    }
}

TEST_F(Idn, EmptyLabelHasAnInvalidLength) {
    EXPECT_EQ(code_thrown(toAscii, "a..example"), 5);
}

TEST_F(Idn, InvalidUtf8IsRefused) {
    for (const char* name : {"\xff", "a\xc3", "\xe4\xb8", "\xc0\x80", "\xed\xa0\x80", "a\x80.b",
                             "\xf8\x88\x80\x80\x80", "\xf5\x80\x80\x80"}) {
        const int code = code_thrown(toAscii, name);
        EXPECT_TRUE(code == 9 || code == 1) << testing::PrintToString(name) << " gave " << code;
    }
}

TEST_F(Idn, EveryCodeIsThrownAndItsTextFreed) { // the leak sanitizer watches the freeing
    for (auto* convert : {toAscii, toUtf8})
        for (const bool gives_text : {false, true})
            for (const int code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 201, 202, -7}) {
                libidn.faked = true;
                libidn.code = code;
                libidn.gives_text = gives_text;
                EXPECT_EQ(code_thrown(convert, "name"), code);
            }
}

TEST_F(Idn, SuccessWithoutATextIsBadAlloc) {
    libidn.faked = true;
    EXPECT_THROW(toAscii("name"), std::bad_alloc);
    EXPECT_THROW(toUtf8("name"), std::bad_alloc);
    EXPECT_THROW(emailToAscii("a@name"), std::bad_alloc);
}

TEST_F(Idn, EmailKeepsItsLocalPart) {
    EXPECT_EQ(emailToAscii("Jürgen+x@bücher.example"), "Jürgen+x@xn--bcher-kva.example");
    EXPECT_EQ(libidn.name, "bücher.example");
}

TEST_F(Idn, EmailWithoutAtIsUnchangedAndUnseen) {
    EXPECT_EQ(emailToAscii("bücher.example"), "bücher.example");
    EXPECT_EQ(emailToAscii(""), "");
    EXPECT_EQ(emailToAscii(std::string(100, 'a')), std::string(100, 'a'));
    EXPECT_EQ(libidn.calls, 0);
}

TEST_F(Idn, EmailThatEndsInAtHasAnEmptyDomain) {
    EXPECT_EQ(emailToAscii("info@"), "info@");
    EXPECT_EQ(libidn.calls, 1);
    EXPECT_EQ(libidn.name, "");
}

TEST_F(Idn, EmailIsCutAtTheFirstAt) {
    EXPECT_EQ(emailToAscii("a@b@example"), "a@b@example");
    EXPECT_EQ(libidn.name, "b@example");
    EXPECT_EQ(emailToAscii("@bücher"), "@xn--bcher-kva");
}

TEST_F(Idn, EmailFailsAsItsDomainDoes) {
    EXPECT_EQ(code_thrown(emailToAscii, "a@" + std::string(64, 'a')), 5);
    EXPECT_EQ(code_thrown(emailToAscii, "a@\xff"), 9);
}

// An address is no longer than what the environment holds, 128 KB; libidn takes time that grows
// with the square of a label's length.
TEST_F(Idn, LongestAddressesEnd) {
    const std::clock_t start = std::clock();
    const auto repeated = [](const std::string& piece, size_t size) {
        std::string text;
        while (text.size() < size)
            text += piece;
        return text;
    };
    constexpr size_t kLongest = size_t{128} * 1024;
    EXPECT_EQ(code_thrown(toAscii, repeated("a", kLongest)), 5);
    EXPECT_EQ(code_thrown(toAscii, repeated("\xff", kLongest)), 9);
    EXPECT_EQ(code_thrown(toAscii, repeated("\xc3\xbc", kLongest)), 5);
    EXPECT_EQ(toAscii(repeated("a.", kLongest)).size(), kLongest);
    // Combining marks, which libidn sorts, are the slowest: a sixteenth of the time of 128 KB.
    EXPECT_EQ(code_thrown(toAscii, "a" + repeated("\xcc\x80\xcc\xa3", kLongest / 4)), 5);
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    EXPECT_LT(seconds, 60.0) << "processor time";
}
