// A responder's row: its columns, their defaults, and whether it answers a message.

#include "autoresponder/responder_row.h"

#include "autoresponder/mail_content.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>

namespace {

constexpr size_t kColumnCount = 11;

struct Column {
    const char* name;
    std::string Responder::*member;
    const char* fallback;
};

// Written out once more, in the query's order.
constexpr std::array<Column, kColumnCount> kColumns = {{
    {"id", &Responder::id, "0"},
    {"keystr", &Responder::keystr, ""},
    {"key_where", &Responder::key_where, "no"},
    {"text", &Responder::text, ""},
    {"resp_on", &Responder::resp_on, "false"},
    {"ans_freq", &Responder::ans_freq, "10"},
    {"mem_limit", &Responder::mem_limit, "1000"},
    {"subject", &Responder::subject, ""},
    {"reply_to", &Responder::reply_to, ""},
    {"charset", &Responder::charset, "UTF-8"},
    {"content_type", &Responder::content_type, "text/plain"},
}};

// A row of which each column holds "v0", "v1" and so on.
struct Row {
    std::array<std::string, kColumnCount> texts;
    std::array<char*, kColumnCount> values;

    Row() {
        for (size_t i = 0; i < kColumnCount; ++i) {
            texts[i] = "v" + std::to_string(i);
            values[i] = texts[i].data();
        }
    }
    Row(const Row&) = delete;

    Responder read() { return responder_from_row(values.data()); }
};

TEST(ResponderQuery, NamesTheColumnsAndTheMailbox) {
    EXPECT_EQ(responder_query("17"),
              "select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, "
              "reply_to, charset, content_type from mail_resp where mn_id=17");
}

TEST(ResponderFromRow, TakesEachColumnFromItsPlace) {
    const Responder responder = Row().read();
    for (size_t i = 0; i < kColumnCount; ++i)
        EXPECT_EQ(responder.*kColumns[i].member, "v" + std::to_string(i)) << kColumns[i].name;
}

TEST(ResponderFromRow, KeepsAnEmptyTextInEachColumn) {
    for (size_t i = 0; i < kColumnCount; ++i) {
        Row row;
        row.texts[i].clear();
        EXPECT_EQ(row.read().*kColumns[i].member, "") << kColumns[i].name;
    }
}

class NullColumn : public testing::TestWithParam<size_t> {};

TEST_P(NullColumn, HasItsDefaultAndTheOthersTheirValues) {
    Row row;
    row.values[GetParam()] = nullptr;
    const Responder responder = row.read();
    for (size_t i = 0; i < kColumnCount; ++i)
        EXPECT_EQ(responder.*kColumns[i].member,
                  i == GetParam() ? kColumns[i].fallback : "v" + std::to_string(i))
            << kColumns[i].name;
}

INSTANTIATE_TEST_SUITE_P(ResponderFromRow, NullColumn, testing::Range(size_t{0}, kColumnCount),
                         [](const testing::TestParamInfo<size_t>& column) {
                             return std::string(kColumns[column.param].name);
                         });

TEST(ResponderFromRow, AllColumnsNullHaveAllDefaults) {
    std::array<char*, kColumnCount> nothing{};
    const Responder responder = responder_from_row(nothing.data());
    for (const Column& column : kColumns)
        EXPECT_EQ(responder.*column.member, column.fallback) << column.name;
}

TEST(ResponderFromRow, EndsAValueAtItsFirstNul) {
    Row row;
    row.texts[3] = std::string("text\0more", 9);
    row.values[3] = row.texts[3].data();
    EXPECT_EQ(row.read().text, "text");
}

// The switch

bool is_on(const std::string& resp_on) {
    Responder responder;
    responder.resp_on = resp_on;
    responder.key_where = "no";
    return responder_applies(responder, Mail_content());
}

TEST(ResponderSwitch, IsOffForFalseAlone) {
    EXPECT_FALSE(is_on("false"));
}

TEST(ResponderSwitch, IsOffForNull) {
    std::array<char*, kColumnCount> nothing{};
    EXPECT_FALSE(responder_applies(responder_from_row(nothing.data()), Mail_content()));
}

TEST(ResponderSwitch, IsOnForEveryOtherText) {
    for (const char* text : {"true", "yes", "", "0", "no", "off", "FALSE", "False", "false ",
                             " false", "falsehood", "fals"})
        EXPECT_TRUE(is_on(text)) << "'" << text << "'";
}

// The keyword condition

bool matches(const std::string& key_where, const std::string& keystr, const Mail_content& content) {
    Responder responder;
    responder.resp_on = "true";
    responder.key_where = key_where;
    responder.keystr = keystr;
    return responder_applies(responder, content);
}

bool subject_matches(const std::string& keystr, const std::string& subject) {
    Mail_content content;
    content.subject = subject;
    return matches("subj", keystr, content);
}

bool body_matches(const std::string& keystr, const std::vector<std::string>& body) {
    Mail_content content;
    content.body = body;
    return matches("body", keystr, content);
}

TEST(KeywordInSubject, IsFoundAtTheStartInTheMiddleAndAtTheEnd) {
    EXPECT_TRUE(subject_matches("price", "price list"));
    EXPECT_TRUE(subject_matches("price", "your price list"));
    EXPECT_TRUE(subject_matches("price", "what price"));
    EXPECT_TRUE(subject_matches("price", "price"));
    EXPECT_TRUE(subject_matches("price", "overpriced"));
}

TEST(KeywordInSubject, IsNotFoundInOtherLetterCase) {
    EXPECT_FALSE(subject_matches("Price", "price list"));
    EXPECT_FALSE(subject_matches("price", "PRICE LIST"));
}

TEST(KeywordInSubject, IsNotFoundWhereItIsMissing) {
    EXPECT_FALSE(subject_matches("price", "pric"));
    EXPECT_FALSE(subject_matches("price", ""));
    EXPECT_FALSE(subject_matches("price", "pri ce"));
}

TEST(KeywordInSubject, IsComparedByteForByte) {
    EXPECT_TRUE(subject_matches("\xC3\xBC", "Gr\xC3\xBC\xC3\x9F"));
    EXPECT_FALSE(subject_matches("\xC3\xBC", "Gr\xC3\x9C"));
    EXPECT_TRUE(subject_matches("\xBC", "Gr\xC3\xBC"));
}

TEST(KeywordInSubject, IsFoundBehindANul) {
    EXPECT_TRUE(subject_matches("b", std::string("a\0b", 3)));
}

TEST(KeywordInSubject, EmptyMatchesEverySubject) {
    EXPECT_TRUE(subject_matches("", ""));
    EXPECT_TRUE(subject_matches("", "any"));
}

TEST(KeywordInSubject, IsNotLookedForInTheBody) {
    Mail_content content;
    content.body = {"price"};
    EXPECT_FALSE(matches("subj", "price", content));
}

TEST(KeywordInBody, IsFoundInAnyLine) {
    EXPECT_TRUE(body_matches("price", {"price", "b", "c"}));
    EXPECT_TRUE(body_matches("price", {"a", "a price b", "c"}));
    EXPECT_TRUE(body_matches("price", {"a", "b", "the price"}));
}

TEST(KeywordInBody, IsNotFoundAcrossALineBreak) {
    EXPECT_FALSE(body_matches("price", {"pri", "ce"}));
    EXPECT_FALSE(body_matches("pri\nce", {"pri", "ce"}));
}

TEST(KeywordInBody, IsNotFoundInOtherLetterCase) {
    EXPECT_FALSE(body_matches("Price", {"price", "PRICE"}));
}

TEST(KeywordInBody, EmptyMatchesEveryBodyWithALine) {
    EXPECT_TRUE(body_matches("", {""}));
    EXPECT_TRUE(body_matches("", {"a", "b"}));
}

TEST(KeywordInBody, NeverMatchesABodyWithoutLines) {
    EXPECT_FALSE(body_matches("", {}));
    EXPECT_FALSE(body_matches("price", {}));
}

TEST(KeywordInBody, IsNotLookedForInTheSubject) {
    Mail_content content;
    content.subject = "price";
    content.body = {""};
    EXPECT_FALSE(matches("body", "price", content));
}

TEST(KeywordElsewhere, IsNoCondition) {
    Mail_content content;
    content.subject = "subject";
    content.body = {"line"};
    for (const char* where :
         {"no", "", "Subj", "SUBJ", "Body", "subject", "sub", "subj ", " body", "from"})
        EXPECT_TRUE(matches(where, "absent", content)) << "'" << where << "'";
}

TEST(KeywordCondition, DoesNotSwitchAResponderOn) {
    Mail_content content;
    content.subject = "price";
    Responder responder;
    responder.resp_on = "false";
    responder.key_where = "subj";
    responder.keystr = "price";
    EXPECT_FALSE(responder_applies(responder, content));
}

} // namespace
