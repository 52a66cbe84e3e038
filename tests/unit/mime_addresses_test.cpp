// Address lists: tokens, elements, mailboxes and groups.
#include "tests/parser/mimelib_record.h"

#include <gtest/gtest.h>

namespace {

using namespace parser_test;

std::string list_text(const std::vector<AddressRecord>& list) {
    std::string text;
    for (const AddressRecord& address : list) {
        text += text.empty() ? "" : " | ";
        if (address.group)
            text += address.valid ? "group" : "bad group";
        else
            text += address.valid ? address.local + " at " + address.domain : "invalid";
        EXPECT_NE(address.group, address.mailbox);
        EXPECT_TRUE(address.valid && !address.group ? !address.local.empty()
                                                    : address.local.empty());
    }
    return text;
}

std::string from(const std::string& field) {
    return list_text(parse_with_mimelib("From: " + field + "\n\n").from.value());
}

std::string reply_to(const std::string& field) {
    return list_text(parse_with_mimelib("Reply-To: " + field + "\n\n").reply_to.value());
}

struct Case {
    const char* name;
    std::string field;
    std::string wanted;
};

// Where groups play no part both lists give the same.
void expect_in_both(const std::vector<Case>& cases) {
    for (const Case& row : cases) {
        EXPECT_EQ(from(row.field), row.wanted) << row.name << ": " << row.field;
        EXPECT_EQ(reply_to(row.field), row.wanted) << row.name << ": " << row.field;
    }
}

TEST(MimeMailbox, IsLocalAtDomain) {
    expect_in_both({
        {"plain", "a@b", "a at b"},
        {"dots", "a.b@c.d", "a.b at c.d"},
        {"8-bit", "j\xc3\xb6rg@b", "j\xc3\xb6rg at b"},
        {"every other byte is of a word", "!#$%&'*+-/=?^_`{|}~\x7f@b",
         "!#$%&'*+-/=?^_`{|}~\x7f at b"},
        {"blanks between tokens", " a . b @ c . d ", "a.b at c.d"},
        {"comments between tokens", "(1)a(2).(3)b(4)@(5)c(6)", "a.b at c"},
        {"control bytes part tokens", std::string("a\x01@\0b", 5), "a at b"},
        {"folded", "a\n @b", "a at b"},
    });
}

TEST(MimeMailbox, DotsMayLeadEndOrDouble) {
    expect_in_both({
        {"leading", ".a@b", ".a at b"},
        {"ending", "a.@b", "a. at b"},
        {"doubled", "a..b@c..d", "a..b at c..d"},
        {"in the domain", "a@.b.", "a at .b."},
        {"nothing else", ".@.", ". at ."},
    });
}

TEST(MimeMailbox, QuotedStringsAndLiteralsKeepTheirMarks) {
    expect_in_both({
        {"quoted", "\"q r\"@b", "\"q r\" at b"},
        {"specials in quotes", "\"a@b,<>;:()[]\"@c", "\"a@b,<>;:()[]\" at c"},
        {"backslash in quotes", "\"q\\\"r\\\\\"@b", "\"q\\\"r\\\\\" at b"},
        {"quoted and words", "a.\"q\".b@c", "a.\"q\".b at c"},
        {"empty quotes", "\"\"@b", "\"\" at b"},
        {"literal", "a@[1.2.3.4]", "a at [1.2.3.4]"},
        {"backslash in a literal", "a@[\\]]", "a at [\\]]"},
        {"literal and words", "a@b.[c d]", "a at b.[c d]"},
    });
}

TEST(MimeMailbox, ALineEndInsideOfATokenIsOneBlank) {
    expect_in_both({
        {"LF", "\"a\n b\"@c", "\"a b\" at c"},
        {"CR LF", "\"a\r\n b\"@c", "\"a b\" at c"},
        {"lone CR", "\"a\rb\"@c", "\"a b\" at c"},
        {"in a literal", "a@[1\r\n 2]", "a at [1 2]"},
    });
}

TEST(MimeMailbox, AnythingElseIsInvalid) {
    expect_in_both({
        {"two words", "a b@c", "invalid"},
        {"two words in the domain", "a@b c", "invalid"},
        {"word and quoted string", "a\"q\"@b", "invalid"},
        {"comment between words", "a(c)b@d", "invalid"},
        {"second at", "a@b@c", "invalid"},
        {"no at", "bad", "invalid"},
        {"no domain", "a@", "invalid"},
        {"no local part", "@b", "invalid"},
        {"nothing but at", "@", "invalid"},
        {"semicolon", "a@b;", "invalid"},
        {"backslash", "\\a@b", "invalid"},
        {"closing parenthesis", "a@b)", "invalid"},
        {"closing bracket", "a]@b", "invalid"},
        {"closing angle", "a@b>", "invalid"},
        {"quoted domain", "a@\"b\"", "invalid"},
        {"literal as local part", "[a]@b", "invalid"},
        {"two literals", "a@[1][2]", "invalid"},
    });
}

TEST(MimeMailbox, WhatStandsInTheFirstAngleBracketsCounts) {
    expect_in_both({
        {"alone", "<a@b>", "a at b"},
        {"name", "J. Doe <a@b>", "a at b"},
        {"address as name", "u@x <a@b>", "a at b"},
        {"8-bit name", "J\xf6rg <a@b>", "a at b"},
        {"quoted name with comma and angle", "\"Doe, <x@y>\" <a@b>", "a at b"},
        {"specials as name", ") ] . \\ <a@b>", "a at b"},
        {"text behind", "<a@b> c@d", "a at b"},
        {"second address behind", "<a@b> <c@d>", "a at b"},
        {"more closing angles", "<a@b>>", "a at b"},
        {"blanks and comments inside", "<(c) a @ b (d)>", "a at b"},
        {"nothing inside", "<>", "invalid"},
        {"nothing inside, address before", "a@b <>", "invalid"},
        {"half inside", "<a>@b", "invalid"},
        {"angle inside", "<<a@b>>", "invalid"},
        {"no closing angle", "<a@b", "invalid"},
        {"no closing angle, comma inside", "<a@b, c@d", "invalid"},
        {"closed behind the next name", "x <a@b, y <c@d>, e@f", "invalid | e at f"},
        {"closing angle first", ">a@b<", "invalid"},
    });
}

TEST(MimeMailbox, ALeadingRouteIsDropped) {
    expect_in_both({
        {"one host", "<@r:a@b>", "a at b"},
        {"several hosts", "<@r,@s.t,@[1]:a@b>", "a at b"},
        {"comment before", "<(c)@r:a@b>", "a at b"},
        {"empty", "<@:a@b>", "a at b"},
        {"nothing behind", "<@r:>", "invalid"},
        {"without colon", "<@r a@b>", "invalid"},
        {"with two colons", "<@r::a@b>", "invalid"},
        {"not leading", "<a@r:b@c>", "invalid"},
        {"without at", "<r:a@b>", "invalid"},
    });
    EXPECT_EQ(from("@r:a@b"), "invalid"); // only inside of angle brackets
}

TEST(MimeAddressList, ElementsArePartedByCommas) {
    expect_in_both({
        {"two", "a@b, c@d", "a at b | c at d"},
        {"folded", "a@b,\r\n c@d", "a at b | c at d"},
        {"invalid ones are elements", "a@b, bad, c@d", "a at b | invalid | c at d"},
        {"unquoted name with comma", "Doe, John <a@b>", "invalid | a at b"},
        {"not inside of angle brackets", "<a,b>,c@d", "invalid | c at d"},
        {"not inside of quotes", "\"a,b\"@c", "\"a,b\" at c"},
        {"not inside of comments", "a@b (x,y)", "a at b"},
        {"not inside of literals", "a@[b,c]", "a at [b,c]"},
    });
}

TEST(MimeAddressList, ElementsOfNothingOrCommentsAreLeftOut) {
    expect_in_both({
        {"nothing", "", ""},
        {"commas", ",,a@b,,c@d,,", "a at b | c at d"},
        {"comments", "(x), (y)a@b, (z)", "a at b"},
        {"control bytes", "\x01,\x02", ""},
    });
}

TEST(MimeAddressList, WhatNeverEndsIsInvalidAndEndsTheList) {
    expect_in_both({
        {"comment", "a@b, (c, d@e", "a at b | invalid"},
        {"nested comment", "a@b (c (d), e@f", "invalid"},
        {"escaped end of a comment", "a@b (c\\), d@e", "invalid"},
        {"quoted string", "a@b, \"q, c@d", "a at b | invalid"},
        {"escaped quotation mark", "\"q\\\"@b", "invalid"},
        {"literal", "a@[b, c@d", "invalid"},
        {"backslash at the end", "\"q\\", "invalid"},
        {"behind a complete address", "<a@b> \"x", "invalid"},
    });
}

TEST(MimeAddressList, CommentsNest) {
    expect_in_both({
        {"nested", "(a(b(c)d)e)f@g", "f at g"},
        {"escaped parenthesis", "(a\\)b)f@g", "f at g"},
        {"quotes mean nothing", "(\")f@g", "f at g"},
    });
}

TEST(MimeGroup, IsFoundInReplyToOnly) {
    EXPECT_EQ(reply_to("g: a@b, c@d;"), "group");
    EXPECT_EQ(from("grp: a@b;"), "invalid");
    EXPECT_EQ(from("g: a@b, c@d;"), "invalid | invalid");
}

TEST(MimeGroup, MayHaveAnyNameOrNone) {
    for (const char* field : {"g:;", ":;", "a b.c:;", "\"q\" r:;", "(c) g:;", "@:;", "mailto:a@b"})
        EXPECT_EQ(reply_to(field), "group") << field;
}

TEST(MimeGroup, EndsAtItsSemicolon) {
    EXPECT_EQ(reply_to("g: a@b, c@d; , e@f"), "group | e at f");
    EXPECT_EQ(reply_to("a@b, g: c@d;, h:;, e@f"), "a at b | group | group | e at f");
    EXPECT_EQ(reply_to("g: \";\", a@b;, c@d"), "group | c at d");
    EXPECT_EQ(reply_to("g: <a;b>, c@d"), "group | c at d");
    EXPECT_EQ(reply_to("g: a@b, c@d"), "group");
}

TEST(MimeGroup, ASecondOneInAnElementHidesItsMailboxesToo) {
    EXPECT_EQ(reply_to("g: a@b; h: c@d, e@f; , i@j"), "group | i at j");
}

TEST(MimeGroup, AColonInsideOfAngleBracketsMakesNone) {
    EXPECT_EQ(reply_to("<a:b>, c@d"), "invalid | c at d");
    EXPECT_EQ(reply_to("x <@r:a@b>"), "a at b");
    EXPECT_EQ(reply_to("<@r>:a@b"), "group"); // the brackets are closed again
}

TEST(MimeGroup, ThatNeverEndsIsInvalid) {
    EXPECT_EQ(reply_to("g: \"x;, a@b"), "bad group");
    EXPECT_EQ(reply_to("a@b, g: (x;"), "a at b | bad group");
}

} // namespace
