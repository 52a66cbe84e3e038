// Headers, body and the string forms of fields.
#include "tests/parser/mimelib_record.h"

#include <gtest/gtest.h>

namespace {

using namespace parser_test;

std::string subject_of(const std::string& message) {
    return parse_with_mimelib(message).subject.value_or("(none)");
}

std::string body_of(const std::string& message) {
    return parse_with_mimelib(message).top.body;
}

TEST(MimeHeaders, EndAtTheFirstEmptyLineWhichBelongsToNeitherSide) {
    EXPECT_EQ(body_of("Subject: s\n\nbody\n\nmore\n"), "body\n\nmore\n");
    EXPECT_EQ(body_of("Subject: s\r\n\r\nbody\r\n"), "body\r\n");
    EXPECT_EQ(body_of("Subject: s\n\r\nbody"), "body");
    EXPECT_EQ(body_of("Subject: s\n\n\nbody"), "\nbody");
}

TEST(MimeHeaders, EndBeforeALineThatIsNoField) {
    EXPECT_EQ(body_of("Subject: s\nhello\nDate: d\n\nx"), "hello\nDate: d\n\nx");
    EXPECT_EQ(parse_with_mimelib("Subject: s\nhello\nDate: d\n").date, std::nullopt);
}

TEST(MimeHeaders, AreNoneInATextThatBeginsWithAnEmptyLine) {
    EXPECT_EQ(subject_of("\nSubject: s\n\nx"), "(none)");
    EXPECT_EQ(body_of("\nSubject: s\n\nx"), "Subject: s\n\nx");
    EXPECT_EQ(body_of("\r\nSubject: s"), "Subject: s");
}

TEST(MimeHeaders, AreNoneBehindAnMboxLineWithoutColon) {
    EXPECT_EQ(subject_of("From a@b Mon Jan 1 2001\nSubject: s\n\nx"), "(none)");
    EXPECT_EQ(body_of("From a@b Mon\nSubject: s\n"), "From a@b Mon\nSubject: s\n");
}

TEST(MimeHeaders, AnMboxLineWithColonIsAFieldOfAnotherName) {
    EXPECT_EQ(subject_of("From a@b Mon Jan 1 10:20:30 2001\nSubject: s\n\nx"), "s");
    EXPECT_EQ(parse_with_mimelib("From a@b Mon 10:20:30\n\n").from, std::nullopt);
}

TEST(MimeHeaders, ALineOfBlanksDoesNotEndThem) {
    EXPECT_EQ(subject_of(" \nSubject: s\n\n"), "s");
    EXPECT_EQ(subject_of("Date: d\n\t \nSubject: s\n\n"), "s");
}

TEST(MimeHeaders, ALoneCrEndsNoLine) {
    EXPECT_EQ(subject_of("Subject: s\rDate: d\r\rbody\n"), "s\rDate: d\r\rbody");
    EXPECT_EQ(body_of("Subject: s\n\r"), "\r");
    EXPECT_EQ(body_of("Subject: s\n\n\r\r"), "\r\r");
}

TEST(MimeHeaders, MayBeAllThereIs) {
    EXPECT_EQ(subject_of("Subject: s"), "s");
    EXPECT_EQ(body_of("Subject: s"), "");
    EXPECT_EQ(body_of("Subject: s\n"), "");
    EXPECT_EQ(body_of("Subject: s\n\n"), "");
    EXPECT_EQ(body_of(""), "");
}

TEST(MimeHeaders, TheBodyKeepsEveryByte) {
    const std::string body("\0\r\xff\n \r\n=3D--x\n", 14);
    EXPECT_EQ(body_of("X: y\n\n" + body), body);
}

TEST(MimeField, NamesAreMatchedWithoutRegardToCase) {
    EXPECT_EQ(subject_of("sUBJECT: s\n\n"), "s");
    const MessageRecord record = parse_with_mimelib(
        "REPLY-TO: a@b\nFROM: c@d\nDATE: d\nCONTENT-TYPE: text\nCONTENT-TRANSFER-ENCODING: 8bit\n");
    EXPECT_TRUE(record.reply_to && record.from && record.date && record.top.type && record.top.cte);
}

TEST(MimeField, TrailingBlanksOfANameAreCut) {
    EXPECT_EQ(subject_of("Subject \t : s\n\n"), "s");
}

TEST(MimeField, OtherBytesAroundANameMakeAnotherName) {
    for (const char* name :
         {"Subject\r", "\"Subject\"", "Subjec", "Subjects", "Sub ject", "\vSubject"})
        EXPECT_EQ(subject_of(std::string(name) + ": s\n\n"), "(none)") << name;
    EXPECT_EQ(subject_of("X: y\n Subject: s\n\n"), "(none)");
}

TEST(MimeField, TheFirstOfSeveralCounts) {
    EXPECT_EQ(subject_of("Subject: one\nSubject: two\n\n"), "one");
    EXPECT_EQ(subject_of("Subject:\nSubject: two\n\n"), "");
}

TEST(MimeField, TheNameEndsAtTheFirstColon) {
    EXPECT_EQ(subject_of("Subject: a: b\n\n"), "a: b");
    EXPECT_EQ(subject_of("Subject::s\n\n"), ":s");
}

TEST(MimeField, ALineThatBeginsWithABlankGoesOnWithTheField) {
    EXPECT_EQ(subject_of("Subject: a\n b\n\tc\nDate: d\n\n"), "a b\tc");
    EXPECT_EQ(subject_of("Subject: a\r\n b\r\n\r\n"), "a b");
    EXPECT_EQ(subject_of("Subject: a\n b: c\n\n"), "a b: c");
}

TEST(MimeField, AContinuationWithoutFieldIsPassedOver) {
    EXPECT_EQ(subject_of(" x\n y\nSubject: s\n\n"), "s");
}

TEST(MimeField, LeadingBlanksAreCutBehindAFoldToo) {
    EXPECT_EQ(subject_of("Subject: \t s\n\n"), "s");
    EXPECT_EQ(subject_of("Subject:\n \n\t s\n\n"), "s");
    EXPECT_EQ(subject_of("Subject: \r\n s\n\n"), "s");
    EXPECT_EQ(subject_of("Subject: \v s\n\n"), "\v s");
    EXPECT_EQ(subject_of("Subject: \r s\n\n"), "\r s");
}

TEST(MimeField, WhiteSpaceAtTheEndIsCut) {
    EXPECT_EQ(subject_of("Subject: s \t\v\f\r\r\n \n\n"), "s");
    EXPECT_EQ(subject_of("Subject: s\xa0\n\n"), "s\xa0");
    EXPECT_EQ(subject_of(std::string("Subject: s\0\n\n", 13)), std::string("s\0", 2));
}

TEST(MimeField, EncodedWordsOnTwoLinesArePartedByBlanksOnly) {
    EXPECT_EQ(subject_of("Subject: =?utf-8?Q?a?=\r\n =?utf-8?Q?b?=\n\n"),
              "=?utf-8?Q?a?= =?utf-8?Q?b?=");
}

TEST(MimeField, EmptyIsNotMissing) {
    EXPECT_EQ(subject_of("Subject:\n\n"), "");
    EXPECT_EQ(subject_of("Subject:"), "");
    EXPECT_EQ(subject_of("Subject\n\n"), "(none)");
}

TEST(MimeField, LongTextsAreKept) {
    const std::string megabyte(1 << 20, 'x');
    EXPECT_EQ(subject_of("Subject: " + megabyte + "\n\n"), megabyte);
    EXPECT_EQ(subject_of(megabyte + ": y\nSubject: s\n\n"), "s");
    EXPECT_EQ(body_of(megabyte), megabyte);
}

} // namespace
