// What makeBoundaryStr and reply_subject give. The template variables are set once per process, so
// each case asks in a process of its own.

#include "autoresponder/reply.h"

#include "autoresponder/mail_content.h"
#include "support/isolated.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <set>

namespace {

using namespace std::string_literals;

// Boundaries

// From the recurrence of random(3)'s default generator with seed 1, computed outside of C.
constexpr char kFirst[] = "--------=_nWlrBbmQBhCDarzOwKkYHIDdqSCDX";
constexpr char kSecond[] = "--------=_rJmOWFrxsjyBldbEFSArCBynEcdyG";
constexpr char kThird[] = "--------=_gxxpkLoRellNMPapqfWkHOPkMCoQH";

TEST(Boundary, IsTheSameInEveryProcessAndNewForEachReply) {
    for (int process = 0; process < 2; ++process) {
        const isolated::Outcome outcome = isolated::run([] {
            std::string all = makeBoundaryStr() + "\n";
            all += makeBoundaryStr() + "\n";
            return all + makeBoundaryStr();
        });
        EXPECT_EQ(outcome.result, kFirst + "\n"s + kSecond + "\n" + kThird);
    }
}

TEST(Boundary, IsDrawnFromAllLettersAndNothingElse) {
    const isolated::Outcome outcome = isolated::run([] {
        std::set<char> drawn;
        for (int i = 0; i < 200; ++i)
            for (const char letter : makeBoundaryStr().substr(10))
                drawn.insert(letter);
        return std::string(drawn.begin(), drawn.end());
    });
    EXPECT_EQ(outcome.result, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(Boundary, IsThePrefixAndTwentyNineLetters) {
    const isolated::Outcome outcome = isolated::run([] {
        for (int i = 0; i < 200; ++i) {
            const std::string boundary = makeBoundaryStr();
            if (boundary.size() != 39 || boundary.compare(0, 10, "--------=_") != 0)
                return boundary;
        }
        return std::string();
    });
    EXPECT_EQ(outcome.result, "");
}

// Subjects

std::string subject(const std::string& subject_template, const std::string& incoming = "Prices",
                    const std::string& sender = "joe@example.org") {
    return isolated::run([&] {
               Mail_content content;
               content.subject = incoming;
               content.sender = sender;
               return reply_subject(subject_template, content);
           })
        .result;
}

TEST(ReplySubject, RepliesToTheIncomingOneWithoutATemplate) {
    EXPECT_EQ(subject(""), "Re: Prices");
    EXPECT_EQ(subject("", ""), "Re: ");
    EXPECT_EQ(subject("", "Re: Prices"), "Re: Re: Prices");
}

TEST(ReplySubject, IsNotCutOrSubstitutedWithoutATemplate) {
    EXPECT_EQ(subject("", "<request_from>"), "Re: <request_from>");
    EXPECT_EQ(subject("", std::string(1500, 's')), "Re: " + std::string(1500, 's'));
    EXPECT_EQ(subject("", "a\0b"s), "Re: a\0b"s);
}

TEST(ReplySubject, HasEachOfTheFiveVariables) {
    EXPECT_EQ(subject("<incoming_message_subject>"), "Prices");
    EXPECT_EQ(subject("<orig_emails_sender_mailname>"), "joe@example.org");
    EXPECT_EQ(subject("<orig_emails_subj>"), "Prices");
    EXPECT_EQ(subject("<request_from>"), "joe@example.org");
    EXPECT_EQ(subject("<request_subject>"), "Prices");
}

TEST(ReplySubject, SubstitutesInsideText) {
    EXPECT_EQ(subject("Re: <request_subject> (<request_from>)!"), "Re: Prices (joe@example.org)!");
    EXPECT_EQ(subject("<request_subject><request_subject>"), "PricesPrices");
}

TEST(ReplySubject, KeepsUnknownVariablesAndLooseBrackets) {
    for (const char* text : {"<request_to>", "<Request_from>", "<<request_from>", "<>", "a < b > c",
                             "<request_from", "request_from>", "< request_from>"})
        EXPECT_EQ(subject(text), text);
}

TEST(ReplySubject, PutsValuesInWithoutLookingIntoThem) {
    EXPECT_EQ(subject("<request_subject>", "<request_from>"), "<request_from>");
}

TEST(ReplySubject, IsEmptyWhereItsOnlyVariableIs) {
    EXPECT_EQ(subject("<request_subject>", ""), "");
}

TEST(ReplySubject, TakesAValueUpToItsFirstNul) {
    EXPECT_EQ(subject("<request_subject>!", "a\0b"s), "a!");
}

TEST(ReplySubject, HasAtMost999Bytes) {
    EXPECT_EQ(subject(std::string(998, 't')), std::string(998, 't'));
    EXPECT_EQ(subject(std::string(999, 't')), std::string(999, 't'));
    EXPECT_EQ(subject(std::string(1000, 't')), std::string(999, 't'));
    EXPECT_EQ(subject(std::string(100000, 't')), std::string(999, 't'));
}

TEST(ReplySubject, CutsAValueAt999Bytes) {
    EXPECT_EQ(subject("Re: <request_subject> more", std::string(2000, 's')),
              "Re: " + std::string(995, 's'));
    EXPECT_EQ(subject("<request_subject>", std::string(999, 's')), std::string(999, 's'));
    EXPECT_EQ(subject("<request_subject>!", std::string(998, 's')), std::string(998, 's') + "!");
    EXPECT_EQ(subject("<request_subject>!", std::string(999, 's')), std::string(999, 's'));
}

TEST(ReplySubject, KeepsTheFirstMessagesValuesForTheWholeProcess) {
    const isolated::Outcome outcome = isolated::run([] {
        Mail_content first, second;
        first.subject = "first";
        second.subject = "second";
        reply_subject("<request_subject>", first);
        return reply_subject("<request_subject>", second);
    });
    EXPECT_EQ(outcome.result, "first");
}

} // namespace
