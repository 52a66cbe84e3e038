// Content-Type and Content-Transfer-Encoding.
#include "tests/parser/mimelib_record.h"

#include <gtest/gtest.h>

namespace {

using namespace parser_test;

EntityRecord typed(const std::string& field) {
    return parse_with_mimelib("Content-Type: " + field + "\n\nx").top;
}

std::string type_of(const std::string& field) {
    return typed(field).type.value();
}

// "attribute=value" of every parameter in brackets.
std::string parameters_of(const std::string& field) {
    std::string text;
    for (const auto& [attribute, value] : typed("text/plain" + field).params)
        text += "[" + attribute + "=" + value + "]";
    return text;
}

std::string encoding_of(const std::string& field) {
    return parse_with_mimelib("Content-Transfer-Encoding: " + field + "\n\nx").top.cte.value();
}

TEST(MimeMediaType, IsTheFirstTokenWithoutRegardToCase) {
    EXPECT_EQ(type_of("text/plain"), "kTypeText");
    EXPECT_EQ(type_of("TeXt/HTML"), "kTypeText");
    EXPECT_EQ(type_of("multipart/mixed"), "kTypeMultipart");
    EXPECT_EQ(type_of("message/rfc822"), "kTypeMessage");
    EXPECT_EQ(type_of("application/pdf"), "kTypeApplication");
    EXPECT_EQ(type_of("image/gif"), "kTypeImage");
    EXPECT_EQ(type_of("audio/basic"), "kTypeAudio");
    EXPECT_EQ(type_of("video/mpeg"), "kTypeVideo");
}

TEST(MimeMediaType, UnknownAndMissingDiffer) {
    for (const char* field :
         {"font/ttf", "texts/plain", "x-text", "te xt/plain", "model/vrml", "\xe9"})
        EXPECT_EQ(type_of(field), "kTypeUnknown") << field;
    for (const char* field :
         {"", "/plain", "\"text\"/plain", "(text)/plain", "=", ";charset=x", "(text"})
        EXPECT_EQ(type_of(field), "kTypeNull") << field;
    EXPECT_EQ(parse_with_mimelib("X: y\n\n").top.type, std::nullopt);
}

TEST(MimeMediaType, NeedsNoSubtype) {
    for (const char* field : {"text", "text/", "text;charset=x", "text /plain", "text(c)/plain"})
        EXPECT_EQ(type_of(field), "kTypeText") << field;
}

TEST(MimeMediaType, TokensEndAtEachSpecialAndAtWhiteSpace) {
    for (char end : std::string("()<>@,;:\\\"/[]?=\t\v\x01 "))
        EXPECT_EQ(type_of(std::string("text") + end + "x"), "kTypeText") << end;
    for (char inside : std::string(".!#$%&'*+-^_`{|}~\x7f\x80\xff"))
        EXPECT_EQ(type_of(std::string("text") + inside + "x"), "kTypeUnknown") << inside;
}

TEST(MimeMediaType, CommentsArePassedOver) {
    EXPECT_EQ(type_of("(c(d)\\))text/plain"), "kTypeText");
    EXPECT_EQ(parameters_of("(;a=b) ;(c)a(c)=(c)b(c);c=d"), "[a=b][c=d]");
    EXPECT_EQ(parameters_of("; (a=b; c=d"), "");
}

TEST(MimeParameter, FollowsEachSemicolonOutsideOfQuotesAndComments) {
    EXPECT_EQ(parameters_of(";a=b"), "[a=b]");
    EXPECT_EQ(parameters_of("; a = b ; c=d;"), "[a=b][c=d]");
    EXPECT_EQ(parameters_of(";;a=b; ;"), "[a=b]");
    EXPECT_EQ(parameters_of("; n=\"a;b\"; c=d"), "[n=a;b][c=d]");
    EXPECT_EQ(parameters_of("; n=(a;b)c; c=d"), "[n=c][c=d]");
    EXPECT_EQ(parameters_of("/\"x;y=z\"; c=d"), "[c=d]");
    EXPECT_EQ(parameters_of(", a=b"), "");
    EXPECT_EQ(parameters_of(" a=b; c=d"), "[c=d]");
    EXPECT_EQ(parameters_of(";\r\n\ta=b"), "[a=b]");
}

TEST(MimeParameter, KeepsTheCaseOfAttributeAndValue) {
    EXPECT_EQ(parameters_of("; CHARSET=ISO-8859-1"), "[CHARSET=ISO-8859-1]");
}

TEST(MimeParameter, QuotedValuesLoseQuotesAndBackslashes) {
    EXPECT_EQ(parameters_of("; a=\"b c\""), "[a=b c]");
    EXPECT_EQ(parameters_of("; a=\"b\\\"\\\\\\c\"; d=e"), "[a=b\"\\c][d=e]");
    EXPECT_EQ(parameters_of("; a=\"\""), "[a=]");
    EXPECT_EQ(parameters_of("; a=\"b\"c; d=e"), "[a=b][d=e]");
    EXPECT_EQ(parameters_of("; a=\"(b)\""), "[a=(b)]");
}

TEST(MimeParameter, AnUnterminatedQuotedValueRunsToTheEnd) {
    EXPECT_EQ(parameters_of("; a=\"b; c=d"), "[a=b; c=d]");
    EXPECT_EQ(parameters_of("; a=\"b\\\"; c=d"), "[a=b\"; c=d]");
    EXPECT_EQ(parameters_of("; a=\"b\\"), "[a=b]");
    EXPECT_EQ(parameters_of("; a=\""), "[a=]");
}

TEST(MimeParameter, UnquotedValuesRunToWhiteSpaceSemicolonOrParenthesis) {
    EXPECT_EQ(parameters_of("; boundary=--=_a/b"), "[boundary=--=_a/b]");
    EXPECT_EQ(parameters_of("; a=<>@,:\\[]?=)\""), "[a=<>@,:\\[]?=)\"]");
    EXPECT_EQ(parameters_of("; a=b c; d=e"), "[a=b][d=e]");
    EXPECT_EQ(parameters_of("; a=b(c)d"), "[a=b]");
    EXPECT_EQ(parameters_of("; a=b\rc"), "[a=b]");
}

TEST(MimeParameter, AnEmptyValueCounts) {
    EXPECT_EQ(parameters_of("; a="), "[a=]");
    EXPECT_EQ(parameters_of("; a=; b=c"), "[a=][b=c]");
}

TEST(MimeParameter, WhatIsNoAttributeIsPassedOver) {
    EXPECT_EQ(parameters_of("; a; b=c"), "[b=c]");
    EXPECT_EQ(parameters_of("; a b=c; d=e"), "[d=e]");
    EXPECT_EQ(parameters_of("; =b; c=d"), "[c=d]");
    EXPECT_EQ(parameters_of("; a/b=c; d=e"), "[d=e]");
    EXPECT_EQ(parameters_of("; \"a\"=b; d=e"), "[d=e]");
    EXPECT_EQ(parameters_of("; a \"b;c=d\"; e=f"), "[e=f]");
}

TEST(MimeMechanism, IsTheFirstTokenWithoutRegardToCase) {
    EXPECT_EQ(encoding_of("7bit"), "kCte7bit");
    EXPECT_EQ(encoding_of("8BIT"), "kCte8bit");
    EXPECT_EQ(encoding_of("Binary"), "kCteBinary");
    EXPECT_EQ(encoding_of("Quoted-Printable"), "kCteQuotedPrintable");
    EXPECT_EQ(encoding_of("bAsE64"), "kCteBase64");
    EXPECT_EQ(encoding_of("(c) base64 (d); x=y"), "kCteBase64");
    EXPECT_EQ(encoding_of("base64, 8bit"), "kCteBase64");
}

TEST(MimeMechanism, UnknownAndMissingDiffer) {
    for (const char* field : {"x-uuencode", "base64x", "base 64", "quoted_printable", "8-bit"})
        EXPECT_EQ(encoding_of(field), "kCteUnknown") << field;
    for (const char* field : {"", "\"base64\"", ";base64", "(base64)"})
        EXPECT_EQ(encoding_of(field), "kCteNull") << field;
    EXPECT_EQ(parse_with_mimelib("X: y\n\n").top.cte, std::nullopt);
}

} // namespace
