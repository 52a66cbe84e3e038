#include "lib/util/safe.h"

#include "lib/util/messlog.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using isolated::kReturned;
using isolated::Outcome;

struct Free {
    void operator()(void* block) const { std::free(block); }
};
using Text = std::unique_ptr<char, Free>;

constexpr char kEnomem[] = "\nSystem error 12: Cannot allocate memory\n";

#define SKIP_WITHOUT_MEMORY_FAULTS()                                                               \
    if (!fault::kMemoryFaults)                                                                     \
    GTEST_SKIP() << fault::kNoMemoryFaults

// What a body says when the nth allocation fails.
Outcome without_memory(int nth, const std::function<std::string()>& body) {
    return isolated::run([&] {
        fault::arm(fault::Call::allocate, nth, ENOMEM);
        return body();
    });
}

TEST(MallocSafe, GivesMemory) {
    Text block(static_cast<char*>(malloc_safe(100)));
    ASSERT_NE(block, nullptr);
    std::memset(block.get(), 1, 100);
}

TEST(MallocSafe, EndsTheProcessWithoutMemory) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    EXPECT_MESSAGE(without_memory(1,
                                  [] {
                                      std::free(malloc_safe(4711));
                                      return std::string();
                                  }),
                   1, std::string("prog: alloc(4711)") + kEnomem);
}

TEST(MallocSafe, EndsTheProcessAtItsMemoryLimit) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    EXPECT_MESSAGE(isolated::run([] {
                       const rlimit limit{64 << 20, 64 << 20};
                       setrlimit(RLIMIT_AS, &limit);
                       std::free(malloc_safe(1 << 30));
                       return std::string();
                   }),
                   1, std::string("prog: alloc(1073741824)") + kEnomem);
}

TEST(ReallocSafe, KeepsTheContent) {
    char* block = static_cast<char*>(malloc_safe(3));
    std::memcpy(block, "ab", 3);
    block = static_cast<char*>(realloc_safe(block, 100000));
    EXPECT_STREQ(block, "ab");
    std::free(block);
}

TEST(ReallocSafe, OfNullIsMalloc) {
    Text block(static_cast<char*>(realloc_safe(nullptr, 5)));
    EXPECT_NE(block, nullptr);
}

TEST(ReallocSafe, EndsTheProcessWithoutMemory) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    EXPECT_MESSAGE(without_memory(1,
                                  [] {
                                      std::free(realloc_safe(nullptr, 12));
                                      return std::string();
                                  }),
                   1, std::string("prog: alloc(12)") + kEnomem);
}

TEST(ReallocSafe, ToSizeZeroEndsTheProcess) {
    SKIP_WITHOUT_MEMORY_FAULTS(); // whose realloc gives memory for size 0
    EXPECT_MESSAGE(isolated::run([] {
                       std::free(realloc_safe(malloc_safe(1), 0));
                       return std::string();
                   }),
                   1, "prog: alloc(0)\n");
}

TEST(AsprintfSafe, Formats) {
    EXPECT_STREQ(Text(asprintf_safe("%s-%d", "a", 5)).get(), "a-5");
    EXPECT_STREQ(Text(asprintf_safe("%s", "")).get(), "");
    const std::string longer(100000, 'x');
    EXPECT_EQ(Text(asprintf_safe("%s!", longer.c_str())).get(), longer + "!");
}

TEST(AsprintfSafe, EndsTheProcessWithoutMemory) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    EXPECT_MESSAGE(without_memory(1,
                                  [] {
                                      std::free(asprintf_safe("%d", 1));
                                      return std::string();
                                  }),
                   1,
                   std::string("prog: Cannot allocate memory: Cannot allocate memory") + kEnomem);
}

TEST(AsprintfSafe, EndsTheProcessWhenTheTextCannotBeFormatted) {
    EXPECT_MESSAGE(
        isolated::run([] {
            const wchar_t invalid[] = {wchar_t(0x7fffffff), 0};
            std::free(asprintf_safe("%ls", invalid));
            return std::string();
        }),
        1,
        "prog: Cannot allocate memory: Invalid or incomplete multibyte or wide character\n"
        "System error 84: Invalid or incomplete multibyte or wide character\n");
}

TEST(Strlcpy, CopiesWhatFits) {
    char dst[8];
    std::memset(dst, '#', sizeof dst);
    EXPECT_EQ(strlcpy(dst, "abc", sizeof dst), 3u);
    EXPECT_EQ(std::string(dst, sizeof dst), std::string("abc\0####", 8));
}

TEST(Strlcpy, CutsAndTerminates) {
    char dst[4];
    EXPECT_EQ(strlcpy(dst, "abc", 4), 3u);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(strlcpy(dst, "abcd", 4), 4u);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(strlcpy(dst, "abcdefgh", 2), 8u);
    EXPECT_STREQ(dst, "a");
}

TEST(Strlcpy, SizeOneIsAnEmptyText) {
    char dst[2] = {'#', '#'};
    EXPECT_EQ(strlcpy(dst, "abc", 1), 3u);
    EXPECT_EQ(std::string(dst, 2), std::string("\0#", 2));
}

TEST(Strlcpy, SizeZeroCopiesNothing) {
    char dst[1] = {'#'};
    EXPECT_EQ(strlcpy(dst, "abc", 0), 3u);
    EXPECT_EQ(dst[0], '#');
}

TEST(Trim, SkipsLeadingAndCutsTrailingWhiteSpace) {
    char text[] = "  a b  ";
    EXPECT_EQ(quarx_trim(text), text + 2);
    EXPECT_EQ(std::string(text, sizeof text), std::string("  a b\0\0\0", 8));
}

TEST(Trim, KnowsAllWhiteSpace) {
    char text[] = " \t\n\v\f\rx\r\f\v\n\t ";
    EXPECT_STREQ(quarx_trim(text), "x");
}

TEST(Trim, OfWhiteSpaceIsEmpty) {
    char text[] = " \t ";
    EXPECT_EQ(quarx_trim(text), text);
    EXPECT_EQ(std::string(text, sizeof text), std::string(4, '\0'));
}

TEST(Trim, LeavesBytesAbove127) {
    char text[] = "\xa0\xc3\xa9\xff";
    EXPECT_STREQ(quarx_trim(text), "\xa0\xc3\xa9\xff");
}

TEST(Trim, OfEmptyAndNull) {
    char text[] = "";
    EXPECT_EQ(quarx_trim(text), text);
    EXPECT_EQ(quarx_trim(nullptr), nullptr);
}

TEST(Rtrim, CutsTrailingWhiteSpaceOnly) {
    char text[] = " a b \n";
    EXPECT_EQ(quarx_rtrim(text), text);
    EXPECT_EQ(std::string(text, sizeof text), std::string(" a b\0\0\0", 7));
    EXPECT_EQ(quarx_rtrim(nullptr), nullptr);
}

TEST(Strtolower, WorksInPlace) {
    char text[] = "AbC-1Z@[\xc4";
    EXPECT_EQ(strtolower(text), text);
    EXPECT_STREQ(text, "abc-1z@[\xc4");
}

TEST(Strtolower, LeavesEmptyAndNullAlone) {
    char text[] = "";
    EXPECT_EQ(strtolower(text), text);
    EXPECT_EQ(strtolower(nullptr), nullptr);
}

TEST(StrtolowerDynamic, CopiesFirst) {
    const char text[] = "ABC";
    const Text copy(strtolower_dynamic(text));
    EXPECT_STREQ(copy.get(), "abc");
    EXPECT_STREQ(text, "ABC");
}

TEST(StrtolowerDynamic, NullGivesNull) {
    EXPECT_EQ(strtolower_dynamic(nullptr), nullptr);
}

TEST(StrtolowerDynamic, WithoutMemoryWarnsAndGivesNull) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    const Outcome outcome = without_memory(1, [] {
        const Text copy(strtolower_dynamic("ABC"));
        return std::string(copy ? "text" : "null");
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: System error: Cannot allocate memory\n") + kEnomem);
    EXPECT_EQ(outcome.result, "null");
}

TEST(Chch, CopiesAndReplacesEveryByte) {
    char dst[8] = "#######";
    EXPECT_EQ(quarx_chch("a.b.", dst, '.', '_'), dst);
    EXPECT_EQ(std::string(dst, sizeof dst), std::string("a_b_\0##\0", 8));
}

TEST(Chch, WorksInPlaceWithoutATarget) {
    char text[] = "//x/";
    EXPECT_EQ(quarx_chch(text, nullptr, '/', '-'), text);
    EXPECT_STREQ(text, "--x-");
}

TEST(Chch, CanEndTheTextEarly) {
    char dst[4];
    quarx_chch("a,b", dst, ',', '\0');
    EXPECT_EQ(std::string(dst, 4), std::string("a\0b\0", 4));
}

TEST(Chch, NeverReplacesTheTerminator) {
    char dst[4] = "###";
    quarx_chch("ab", dst, '\0', 'x');
    EXPECT_STREQ(dst, "ab");
}

std::string replaced(const char* src, const char* pattern, const char* replacement, size_t size) {
    std::vector<char> dst(size + 1, '#');
    EXPECT_EQ(strn_replace(src, dst.data(), pattern, replacement, size), dst.data());
    EXPECT_EQ(dst[size], '#') << "written beyond its size";
    return std::string(dst.data(), strnlen(dst.data(), size));
}

TEST(StrnReplace, ReplacesEveryOccurrence) {
    EXPECT_EQ(replaced("aXbXc", "X", "--", 100), "a--b--c");
    EXPECT_EQ(replaced("XX", "X", "", 100), "");
    EXPECT_EQ(replaced("abc", "X", "--", 100), "abc");
    EXPECT_EQ(replaced("", "X", "--", 100), "");
    EXPECT_EQ(replaced("aaa", "aa", "b", 100), "ba");
}

TEST(StrnReplace, DoesNotLookIntoTheReplacement) {
    EXPECT_EQ(replaced("a", "a", "aaa", 100), "aaa");
}

TEST(StrnReplace, CutsAtAPieceBoundary) {
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 9), "a--bb--c");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 8), "a--bb--");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 7), "a--bb");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 6), "a--bb");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 5), "a--");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 3), "a");
    EXPECT_EQ(replaced("aXbbXc", "X", "--", 1), "");
}

TEST(StrnReplace, StopsAtTheFirstPieceThatDoesNotFit) {
    EXPECT_EQ(replaced("aXbX", "X", "long", 4), "a");
}

TEST(StrnReplace, ANullReplacementIsAnEmptyOne) {
    EXPECT_EQ(replaced("aXb", "X", nullptr, 100), "ab");
}

TEST(StrnReplace, AnEmptyOrNullPatternIsStrncpy) {
    for (const char* pattern : {static_cast<const char*>(nullptr), ""}) {
        char dst[6] = {'#', '#', '#', '#', '#', '#'};
        EXPECT_EQ(strn_replace("ab", dst, pattern, "x", 5), dst);
        EXPECT_EQ(std::string(dst, 6), std::string("ab\0\0\0#", 6));
        EXPECT_EQ(strn_replace("abcdefg", dst, pattern, "x", 5), dst);
        EXPECT_EQ(std::string(dst, 6), "abcde#");
    }
}

TEST(StrnReplace, ANullTargetGivesNull) {
    EXPECT_EQ(strn_replace("a", nullptr, "a", "b", 10), nullptr);
}

TEST(StrnReplace, SizeZeroLeavesTheTarget) {
    EXPECT_EQ(replaced("a", "a", "b", 0), "");
}

TEST(StrnReplace, WorksInPlace) {
    char text[16] = "aXbX";
    EXPECT_EQ(strn_replace(text, text, "X", "--", sizeof text), text);
    EXPECT_STREQ(text, "a--b--");
    EXPECT_EQ(strn_replace(text, text, "", "x", sizeof text), text);
    EXPECT_STREQ(text, "a--b--");
}

TEST(StrnReplace, WithoutMemoryWarnsAndCopies) {
    SKIP_WITHOUT_MEMORY_FAULTS();
    for (const size_t size : {size_t{10}, size_t{3}}) {
        const Outcome outcome = without_memory(1, [&] {
            char dst[10];
            return std::string(strn_replace("aXbX", dst, "X", "--", size));
        });
        EXPECT_MESSAGE(outcome, kReturned,
                       std::string("prog: strn_replace(): Cannot allocate memory\n") + kEnomem);
        EXPECT_EQ(outcome.result, size == 10 ? "aXbX" : "aX");
    }
}

// The obvious way: first all pieces, then as many as fit.
std::string naive_replaced(const std::string& src, const std::string& pattern,
                           const std::string& replacement, size_t size) {
    std::vector<std::string> pieces{""};
    for (size_t i = 0; i < src.size();) {
        if (src.compare(i, pattern.size(), pattern) == 0) {
            pieces.push_back(replacement);
            pieces.emplace_back();
            i += pattern.size();
        } else {
            pieces.back() += src[i++];
        }
    }
    std::string result;
    for (const std::string& piece : pieces) {
        if (result.size() + piece.size() >= size)
            break;
        result += piece;
    }
    return result;
}

TEST(StrnReplace, AgreesWithItsNaiveTwinOnRandomTexts) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    const auto text = [&](size_t least, size_t most) {
        std::string result(least + random() % (most - least + 1), ' ');
        for (char& c : result)
            c = static_cast<char>('a' + random() % 2);
        return result;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::string src = text(0, 12), pattern = text(1, 3), replacement = text(0, 4);
        const size_t size = random() % 24;
        ASSERT_EQ(replaced(src.c_str(), pattern.c_str(), replacement.c_str(), size),
                  naive_replaced(src, pattern, replacement, size))
            << "seed " << seed << ": '" << src << "' '" << pattern << "' '" << replacement << "' "
            << size;
    }
}

TEST(CheckParameter, AcceptsAValueAndWhatIsNotRequired) {
    check_parameter(1, "x", "name");
    check_parameter(0, "", "name");
    check_parameter(0, nullptr, "name");
}

TEST(CheckParameter, EndsTheProcessWithoutARequiredValue) {
    for (const char* value : {static_cast<const char*>(nullptr), ""})
        for (const int required : {1, -1})
            EXPECT_MESSAGE(isolated::run([&] {
                               check_parameter(required, value, "--name");
                               return std::string();
                           }),
                           1, "prog: Missing parameter '--name' or previous parameter is empty.\n");
}

TEST(CheckUnprocessedParameters, AcceptsEqualCounts) {
    check_unprocessed_parameters(0, 0);
    check_unprocessed_parameters(5, 5);
}

TEST(CheckUnprocessedParameters, EndsTheProcessWhenTheCountsDiffer) {
    for (const int used : {2, 4})
        EXPECT_MESSAGE(isolated::run([&] {
                           check_unprocessed_parameters(3, used);
                           return std::string();
                       }),
                       1,
                       "prog: Some parameters in command string are left unprocessed. Check "
                       "parameters please.\n");
}

} // namespace
