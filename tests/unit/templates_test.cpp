#include "autoresponder/templates.h"

#include "support/operator_new.h"
#include "tests/twins/templates_twin.h"
#include "tests/twins/text_random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using twin::Substitution;
using twin::Variables;

namespace twin {

void PrintTo(const Substitution& done, std::ostream* stream) {
    *stream << testing::PrintToString(done.text)
            << (done.is_terminated ? " and a NUL" : " without a NUL") << ", consumed "
            << done.consumed << ", result " << done.result;
}

} // namespace twin

namespace {

constexpr uint32_t kWhole = 1;
constexpr uint32_t kStrict = 2;

const Variables kVariables = {
    {"empty", ""}, {"from", "ann@example.com"}, {"none", std::nullopt}, {"subject", "Hello"}};

std::vector<par_templ> table_of(const Variables& variables) {
    std::vector<par_templ> table; // a map is in byte order of its names
    for (const auto& [name, value] : variables)
        table.push_back({name.c_str(), value ? value->c_str() : nullptr});
    return table;
}

// What templ_replace leaves behind in a heap block of exactly `size` bytes (one, for size 0), with
// the source in one of its exact size, too.
Substitution replaced(const char* source, unsigned size = 100, uint32_t options = kStrict,
                      const Variables& variables = kVariables, char open = '<', char close = '>') {
    const size_t room = std::max(size, 1U);
    const auto dst = std::make_unique<char[]>(room);
    std::fill_n(dst.get(), room, '#');
    std::unique_ptr<char[]> src;
    if (source != nullptr) {
        const size_t length = std::strlen(source);
        src = std::make_unique<char[]>(length + 1);
        std::copy_n(source, length, src.get());
    }
    const std::vector<par_templ> table = table_of(variables);
    repl_ctl ctl{77, 78, options, 79};
    const char* returned =
        templ_replace(open, close, table.data(), static_cast<unsigned>(table.size()), src.get(),
                      dst.get(), size, &ctl);
    EXPECT_EQ(returned, dst.get());
    EXPECT_EQ(ctl.options, options);
    EXPECT_LE(ctl.written, size);

    Substitution done;
    done.text.assign(dst.get(), ctl.written);
    done.is_terminated = ctl.written < room && dst[ctl.written] == '\0';
    done.consumed = ctl.consumed;
    done.result = ctl.result;
    if (ctl.written > 0) { // the first byte is cleared before anything is known of the source
        for (size_t i = ctl.written + (done.is_terminated ? 1 : 0); i < room; ++i)
            EXPECT_EQ(dst[i], '#') << "byte " << i << " behind the text was written";
    }
    return done;
}

// A substitution that came to its end: `text` and a NUL.
Substitution whole(const std::string& text, size_t consumed, uint32_t result = 0) {
    return {text, true, static_cast<uint32_t>(consumed), result};
}

// One that filled its buffer or stopped: no NUL.
Substitution cut(const std::string& text, size_t consumed, uint32_t result = 0) {
    return {text, false, static_cast<uint32_t>(consumed), result};
}

std::string letters(size_t count) {
    return std::string(count, 'n');
}

} // namespace

// ---- the records

TEST(TemplateRecords, MembersStandInTheirOrder) {
    static_assert(std::is_standard_layout_v<repl_ctl> && sizeof(repl_ctl) == 16);
    EXPECT_EQ(offsetof(repl_ctl, consumed), 0U);
    EXPECT_EQ(offsetof(repl_ctl, written), 4U);
    EXPECT_EQ(offsetof(repl_ctl, options), 8U);
    EXPECT_EQ(offsetof(repl_ctl, result), 12U);
    EXPECT_EQ(offsetof(par_templ, name), 0U);
    EXPECT_EQ(offsetof(par_templ, value), sizeof(char*));
}

// ---- templ_replace

TEST(TemplReplace, VariableAloneYieldsItsValue) {
    EXPECT_EQ(replaced("<from>"), whole("ann@example.com", 6));
}

TEST(TemplReplace, TextAboutVariablesIsKept) {
    EXPECT_EQ(replaced("Re: <subject>"), whole("Re: Hello", 13));
    EXPECT_EQ(replaced("a<subject>b<from>c"), whole("aHellobann@example.comc", 18));
    EXPECT_EQ(replaced("<subject><subject>"), whole("HelloHello", 18));
}

TEST(TemplReplace, TextWithoutVariablesIsCopied) {
    EXPECT_EQ(replaced("plain > text"), whole("plain > text", 12));
}

TEST(TemplReplace, ValueIsNotSubstitutedAgain) {
    EXPECT_EQ(replaced("<a>", 100, kStrict, {{"a", "<b>"}, {"b", "no"}}), whole("<b>", 3));
}

TEST(TemplReplace, EmptyValueReplacesTheVariable) {
    EXPECT_EQ(replaced("a<empty>b"), whole("ab", 9));
}

TEST(TemplReplace, VariableWithoutValueIsRemoved) {
    EXPECT_EQ(replaced("a<none>b", 100, kStrict), whole("ab", 8));
    EXPECT_EQ(replaced("a<none>b", 100, 0), whole("ab", 8));
    EXPECT_EQ(replaced("<none>"), whole("", 6));
}

TEST(TemplReplace, NamesAreComparedByteForByte) {
    EXPECT_EQ(replaced("<Subject>"), whole("<Subject>", 9, 2));
    EXPECT_EQ(replaced("<subject >"), whole("<subject >", 10, 2));
    EXPECT_EQ(replaced("<subjec>"), whole("<subjec>", 8, 2));
    EXPECT_EQ(replaced("<subjects>"), whole("<subjects>", 10, 2));
}

TEST(TemplReplace, UnknownVariableStaysInStrictMode) {
    EXPECT_EQ(replaced("a <x> <subject>"), whole("a <x> Hello", 15, 2));
}

TEST(TemplReplace, UnknownVariableIsRemovedElse) {
    EXPECT_EQ(replaced("a <x> <subject>", 100, 0), whole("a  Hello", 15));
    EXPECT_EQ(replaced("<x>", 100, kWhole), whole("", 3));
}

TEST(TemplReplace, SecondOpeningCharacterIsPartOfTheName) {
    EXPECT_EQ(replaced("<<subject>"), whole("<<subject>", 10, 2));
    EXPECT_EQ(replaced("<<subject>", 100, 0), whole("", 10));
    EXPECT_EQ(replaced("<<subject><subject>"), whole("<<subject>Hello", 19, 2));
}

TEST(TemplReplace, EmptyNameIsLiteral) {
    EXPECT_EQ(replaced("<>"), whole("<>", 2));
    EXPECT_EQ(replaced("<>", 100, 0), whole("<>", 2));
    EXPECT_EQ(replaced("a<><subject>"), whole("a<>Hello", 12));
    EXPECT_EQ(replaced("<>subject>"), whole("<>subject>", 10));
}

TEST(TemplReplace, NameOf32CharactersIsLookedUp) {
    const std::string name = letters(32);
    EXPECT_EQ(replaced(("<" + name + ">").c_str(), 100, 0, {{name, "v"}}), whole("v", 34));
    EXPECT_EQ(replaced(("<" + name + ">").c_str()), whole("<" + name + ">", 34, 2));
}

TEST(TemplReplace, NameOf33CharactersIsNot) {
    const std::string text = "<" + letters(33) + ">";
    const Variables variables = {{letters(32), "v"}, {letters(33), "w"}};
    EXPECT_EQ(replaced(text.c_str(), 100, 0, variables), whole(text, 35));
    EXPECT_EQ(replaced(text.c_str(), 100, kStrict, variables), whole(text, 35));
}

TEST(TemplReplace, OpeningCharacterWithoutAClosingOneIsLiteral) {
    for (const size_t count : {33U, 34U, 60U}) {
        const std::string text = "<" + letters(count);
        EXPECT_EQ(replaced(text.c_str(), 100, 0), whole(text, count + 1));
    }
}

TEST(TemplReplace, NoneOf33ScannedCharactersOpensAgain) {
    const std::string inside =
        "<" + letters(10) + "<subject" + letters(15); // opens twice, no close
    EXPECT_EQ(replaced((inside + "><subject>").c_str()), whole(inside + ">Hello", 44));
    const std::string hidden = "<" + letters(30) + "<s"; // the inner one ends outside the 33
    EXPECT_EQ(replaced((hidden + "xubject><subject>").c_str()),
              whole(hidden + "xubject>Hello", 50));
}

TEST(TemplReplace, TheCharacterBehindThe33MayOpen) {
    const std::string text = "<" + letters(33);
    EXPECT_EQ(replaced((text + "<subject>").c_str()), whole(text + "Hello", 43));
}

TEST(TemplReplace, TextThatEndsInsideANameIsLiteral) {
    for (size_t count = 0; count <= 33; ++count) {
        const std::string text = "a<" + letters(count);
        EXPECT_EQ(replaced(text.c_str(), 100, 0), whole(text, count + 2)) << count;
        EXPECT_EQ(replaced(text.c_str(), 100, kStrict), whole(text, count + 2)) << count;
    }
    EXPECT_EQ(replaced("<subject><subject"), whole("Hello<subject", 17));
    EXPECT_EQ(replaced("<subject<"), whole("<subject<", 9));
}

TEST(TemplReplace, ClosingCharacterNulNeverCloses) {
    EXPECT_EQ(replaced("a<subject", 100, 0, kVariables, '<', '\0'), whole("a<subject", 9));
    EXPECT_EQ(replaced("<", 100, 0, kVariables, '<', '\0'), whole("<", 1));
}

TEST(TemplReplace, OpeningCharacterNulNeverOpens) {
    EXPECT_EQ(replaced("a<subject>", 100, 0, kVariables, '\0', '>'), whole("a<subject>", 10));
    EXPECT_EQ(replaced("a", 100, 0, kVariables, '\0', '\0'), whole("a", 1));
}

TEST(TemplReplace, OneCharacterMayOpenAndClose) {
    EXPECT_EQ(replaced("%subject%%%subject%", 100, kStrict, kVariables, '%', '%'),
              whole("Hello%%subject%", 19));
}

TEST(TemplReplace, BytesOfTheUpperHalfMayBracket) {
    EXPECT_EQ(replaced("\xabsubject\xbb", 100, kStrict, kVariables, '\xab', '\xbb'),
              whole("Hello", 9));
}

// ---- templ_replace: nothing to do

TEST(TemplReplace, NothingComesOfNothing) {
    EXPECT_EQ(replaced(nullptr), whole("", 0));
    EXPECT_EQ(replaced(""), whole("", 0));
}

TEST(TemplReplace, EmptyTableGivesAnEmptyOutputEvenForPlainText) {
    EXPECT_EQ(replaced("plain", 100, kStrict, {}), whole("", 0));
}

TEST(TemplReplace, OutputOfNoSizeIsJustTerminated) {
    EXPECT_EQ(replaced("plain", 0), whole("", 0));
}

TEST(TemplReplace, TableThatIsNullKnowsNoVariable) {
    char dst[20];
    repl_ctl ctl{0, 0, kStrict, 0};
    templ_replace('<', '>', nullptr, 5, "a<subject>", dst, sizeof dst, &ctl);
    EXPECT_STREQ(dst, "a<subject>");
    EXPECT_EQ(ctl.result, 2U);
}

// ---- templ_replace: the three ends of the room

TEST(TemplReplace, FinalLiteralNeedsRoomForItsNul) {
    EXPECT_EQ(replaced("abcde", 6), whole("abcde", 5));
    EXPECT_EQ(replaced("abcde", 5), cut("abcde", 5));
    EXPECT_EQ(replaced("abcde", 4), cut("abcd", 4));
    EXPECT_EQ(replaced("abcde", 1), cut("a", 1));
    EXPECT_EQ(replaced("<subject>ab", 8), whole("Helloab", 11));
    EXPECT_EQ(replaced("<subject>ab", 7), cut("Helloab", 11));
    EXPECT_EQ(replaced("<subject>ab", 6), cut("Helloa", 10));
}

TEST(TemplReplace, EmptyFinalLiteralInAFullBufferIsNotTerminated) {
    EXPECT_EQ(replaced("<subject>", 5), cut("Hello", 9));
    EXPECT_EQ(replaced("<subject>", 6), whole("Hello", 9));
}

TEST(TemplReplace, LiteralBeforeAVariableNeedsNoRoomForANul) {
    EXPECT_EQ(replaced("abcde<empty>", 5), cut("abcde", 12));
    EXPECT_EQ(replaced("abcde<none>", 5), cut("abcde", 11));
    EXPECT_EQ(replaced("abcde<x>", 5, 0), cut("abcde", 8));
}

TEST(TemplReplace, LiteralBeforeAVariableIsCutWithTheVariable) {
    EXPECT_EQ(replaced("abcdef<subject>", 5), cut("abcde", 5));
    EXPECT_EQ(replaced("abcdef<none>", 5), cut("abcde", 5));
    EXPECT_EQ(replaced("<subject>abc<subject>", 7, kWhole), cut("Helloab", 11));
}

TEST(TemplReplace, ValueThatFitsExactlyIsWhole) {
    EXPECT_EQ(replaced("ab<subject>", 7, kWhole), cut("abHello", 11));
    EXPECT_EQ(replaced("ab<subject>", 7, 0), cut("abHello", 11));
}

TEST(TemplReplace, ValueThatDoesNotFitIsCut) {
    EXPECT_EQ(replaced("ab<subject>cd", 6, 0), cut("abHell", 11));
    EXPECT_EQ(replaced("ab<subject>cd", 6, kStrict), cut("abHell", 11));
    EXPECT_EQ(replaced("ab<subject>cd", 2, 0), cut("ab", 11));
}

TEST(TemplReplace, ValueThatDoesNotFitIsLeftOutWithAllBehindIt) {
    EXPECT_EQ(replaced("ab<subject>cd", 6, kWhole), cut("ab", 2, 1));
    EXPECT_EQ(replaced("ab<subject>cd", 6, kWhole | kStrict), cut("ab", 2, 1));
    EXPECT_EQ(replaced("ab<subject>", 2, kWhole), cut("ab", 2, 1));
    EXPECT_EQ(replaced("<x><subject>", 6, kWhole | kStrict), cut("<x>", 3, 3));
    EXPECT_EQ(replaced("a<empty>b<subject>c", 6, kWhole), cut("ab", 9, 1));
}

TEST(TemplReplace, ValueLeftOutAtTheVeryStartKeepsTheClearedByte) {
    EXPECT_EQ(replaced("<subject>", 4, kWhole), (Substitution{"", true, 0, 1}));
}

TEST(TemplReplace, ASubjectEndsAt999Characters) {
    const Variables variables = {{"request_subject", std::string(5000, 's')}};
    EXPECT_EQ(replaced("Re: <request_subject>!", 999, kStrict, variables),
              cut("Re: " + std::string(995, 's'), 21));
    EXPECT_EQ(replaced(std::string(1200, 'a').c_str(), 999, kStrict, variables),
              cut(std::string(999, 'a'), 999));
}

TEST(TemplReplace, OptionsOf65533AreLikeAnyWithoutStrictness) {
    EXPECT_EQ(replaced("a<x>b", 100, 65533), whole("ab", 5));
    EXPECT_EQ(replaced("<x><subject>", 4, 65533), (Substitution{"", true, 3, 1}));
}

TEST(TemplReplace, OtherBitsOfOptionsMeanNothing) {
    EXPECT_EQ(replaced("a<x>b<subject>", 100, 0xFFFFFFFC), whole("abHello", 14));
    EXPECT_EQ(replaced("a<x>b<subject>", 100, 0xFFFFFFFE), whole("a<x>bHello", 14, 2));
}

TEST(TemplReplace, AgreesWithItsTwin) {
    twin::Random random("TemplReplace");
    const std::vector<std::string> pieces = {"<",      ">",    "<a>",      "<bb>",     "<none>",
                                             "<zz>",   "a",    "x",        "<>",       "<empty>",
                                             "<long>", "text", letters(9), letters(31)};
    const std::vector<std::string> names = {"a",  "bb", "none",      "empty",     "long",
                                            "zz", "q",  letters(31), letters(32), letters(33),
                                            "<a", "m",  "B",         "\xfc"};
    for (int i = 0; i < 100'000; ++i) {
        Variables variables;
        for (size_t count = random.below(9); count > 0; --count) {
            std::optional<std::string> value;
            if (random.below(6) != 0)
                value = std::string(random.below(8), 'v');
            variables[random.pick(names)] = value;
        }
        std::string source = random.mix(pieces, 12);
        source.resize(std::strlen(source.c_str())); // a source ends at its first NUL
        const auto size = static_cast<unsigned>(random.below(80));
        const uint32_t options =
            random.below(50) == 0 ? 65533 : static_cast<uint32_t>(random.below(5));
        const std::string brackets = random.below(8) == 0 ? "<<" : "<>";
        Substitution wanted =
            twin::substitute(brackets[0], brackets[1], variables, source, size, options);
        if (wanted.text.empty()) // then the byte cleared at the start still stands
            wanted.is_terminated = true;
        ASSERT_EQ(replaced(source.c_str(), size, options, variables, brackets[0], brackets[1]),
                  wanted)
            << testing::PrintToString(source) << " in " << size << " bytes, options " << options
            << ", variables " << testing::PrintToString(variables);
    }
}

TEST(TemplReplace, CallsNoOperatorNew) {
    const std::string name(32, 'n');
    const std::string source = "before <" + name + "> between <unknown> after";
    const std::string value(500, 'v');
    const par_templ table[] = {{name.c_str(), value.c_str()}};
    char text[999];
    repl_ctl ctl{0, 0, kStrict, 0};
    const size_t before = operator_new.calls;
    templ_replace('<', '>', table, 1, source.c_str(), text, sizeof text, &ctl);
    EXPECT_EQ(operator_new.calls, before);
    EXPECT_EQ(std::string(text, ctl.written), "before " + value + " between <unknown> after");
}

// ---- templ_found

TEST(TemplFound, NothingIsFoundWithoutATableOrAName) {
    const par_templ table[] = {{"a", "1"}};
    EXPECT_EQ(templ_found("a", table, 0), -1);
    EXPECT_EQ(templ_found("a", nullptr, 1), -1);
    EXPECT_EQ(templ_found(nullptr, table, 1), -1);
    EXPECT_EQ(templ_found("a", table, -1), -1);
}

TEST(TemplFound, OneEntry) {
    const par_templ table[] = {{"m", "1"}};
    EXPECT_EQ(templ_found("m", table, 1), 0);
    EXPECT_EQ(templ_found("a", table, 1), -1);
    EXPECT_EQ(templ_found("z", table, 1), -1);
    EXPECT_EQ(templ_found("", table, 1), -1);
}

TEST(TemplFound, EveryNameAndEveryGapOfTablesOfAnySize) {
    for (int count = 1; count <= 40; ++count) {
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i)
            names.push_back({static_cast<char>('A' + i), 'm'});
        std::vector<par_templ> table;
        for (const std::string& name : names)
            table.push_back({name.c_str(), nullptr});
        for (int i = 0; i < count; ++i) {
            const std::string& name = names[static_cast<size_t>(i)];
            EXPECT_EQ(templ_found(name.c_str(), table.data(), count), i) << "of " << count;
            EXPECT_EQ(templ_found((name.substr(0, 1) + "l").c_str(), table.data(), count), -1);
            EXPECT_EQ(templ_found((name + "x").c_str(), table.data(), count), -1);
        }
        EXPECT_EQ(templ_found("", table.data(), count), -1);
        EXPECT_EQ(templ_found("~", table.data(), count), -1);
    }
}

TEST(TemplFound, OfEqualNamesTheOneInTheMiddle) {
    const par_templ table[] = {{"a", "1"}, {"b", "2"}, {"b", "3"}, {"b", "4"}, {"c", "5"}};
    EXPECT_EQ(templ_found("b", table, 5), 2);
}

TEST(TemplFound, ANameOutOfItsOrderIsNotFound) {
    const par_templ table[] = {{"z", "1"}, {"b", "2"}, {"c", "3"}};
    EXPECT_EQ(templ_found("z", table, 3), -1);
}

TEST(TemplFound, BytesOfTheUpperHalfComeLast) {
    const par_templ table[] = {{"a", "1"}, {"z", "2"}, {"\xc3\xbc", "3"}};
    EXPECT_EQ(templ_found("\xc3\xbc", table, 3), 2);
    EXPECT_EQ(templ_found("z", table, 3), 1);
}

// ---- templ_quick_sort and qs

TEST(TemplQuickSort, SortsWholeEntriesByTheirNames) {
    par_templ table[] = {{"m", "1"}, {"z", "2"}, {"a", "3"}, {"b", nullptr}};
    templ_quick_sort(table, 4);
    const std::pair<std::string, const char*> wanted[] = {
        {"a", "3"}, {"b", nullptr}, {"m", "1"}, {"z", "2"}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(table[i].name, wanted[i].first);
        EXPECT_STREQ(table[i].value, wanted[i].second);
    }
}

// Worked out by hand: the middle entry is the pivot, and equal names change places too.
TEST(TemplQuickSort, OrderOfEqualNamesIsThatOfThePartition) {
    par_templ table[] = {{"b", "1"}, {"a", "2"}, {"c", "3"}, {"a", "4"}, {"b", "5"}};
    templ_quick_sort(table, 5);
    std::string values;
    for (const par_templ& entry : table)
        values += entry.value;
    EXPECT_EQ(values, "42153");
}

TEST(TemplQuickSort, LeavesEmptyTablesAlone) {
    templ_quick_sort(nullptr, 0);
    par_templ table[] = {{"b", "1"}, {"a", "2"}};
    templ_quick_sort(table, 0);
    templ_quick_sort(table, -3);
    templ_quick_sort(table, 1);
    EXPECT_STREQ(table[0].name, "b");
}

TEST(TemplQuickSort, UpperCaseComesBeforeLowerAndBytesOfTheUpperHalfLast) {
    par_templ table[] = {{"\xfc", "1"}, {"a", "2"}, {"B", "3"}, {"", "4"}};
    templ_quick_sort(table, 4);
    EXPECT_STREQ(table[0].value, "4");
    EXPECT_STREQ(table[1].value, "3");
    EXPECT_STREQ(table[2].value, "2");
    EXPECT_STREQ(table[3].value, "1");
}

TEST(Qs, SortsItsRangeAndNothingElse) {
    par_templ table[] = {{"z", "0"}, {"c", "1"}, {"b", "2"}, {"a", "3"}, {"0", "4"}};
    qs(table, 1, 3);
    std::string names;
    for (const par_templ& entry : table)
        names += entry.name;
    EXPECT_EQ(names, "zabc0");
    qs(table, 2, 2);
    qs(table, 3, 1);
    names.clear();
    for (const par_templ& entry : table)
        names += entry.name;
    EXPECT_EQ(names, "zabc0");
}

TEST(TemplQuickSort, AgreesWithTheLibrarysSort) {
    twin::Random random("TemplQuickSort");
    for (int i = 0; i < 20'000; ++i) {
        const size_t kinds = 1 + random.below(30); // few kinds: many equal names
        std::vector<std::string> names(random.below(40));
        for (std::string& name : names)
            name = std::string(1, static_cast<char>('A' + random.below(kinds)));
        std::vector<par_templ> table;
        for (const std::string& name : names)
            table.push_back({name.c_str(), name.c_str()});
        templ_quick_sort(table.data(), static_cast<int>(table.size()));
        std::vector<const char*> got;
        std::string sorted;
        for (const par_templ& entry : table) {
            ASSERT_EQ(entry.name, entry.value) << "an entry was torn";
            got.push_back(entry.name);
            sorted += entry.name;
        }
        std::string wanted;
        for (const std::string& name : names)
            wanted += name;
        std::sort(wanted.begin(), wanted.end());
        ASSERT_EQ(sorted, wanted);
        std::sort(got.begin(), got.end());
        ASSERT_EQ(std::unique(got.begin(), got.end()), got.end()) << "an entry was lost";
    }
}

TEST(TemplQuickSort, LongSortedAndReversedTables) {
    std::vector<std::string> names;
    for (int i = 10'000; i < 20'000; ++i)
        names.push_back(std::to_string(i));
    std::vector<par_templ> table;
    for (const std::string& name : names)
        table.push_back({name.c_str(), nullptr});
    const auto before = [](const par_templ& a, const par_templ& b) {
        return std::strcmp(a.name, b.name) < 0;
    };
    templ_quick_sort(table.data(), 10'000);
    EXPECT_TRUE(std::is_sorted(table.begin(), table.end(), before));
    std::reverse(table.begin(), table.end());
    templ_quick_sort(table.data(), 10'000);
    EXPECT_TRUE(std::is_sorted(table.begin(), table.end(), before));
}
