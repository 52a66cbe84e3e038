// Intake: the copy of the message, its sender, recipient, subject and date.

#include "autoresponder/intake.h"

#include "lib/util/unique_fd.h"
#include "support/isolated.h"
#include "support/operator_new.h"
#include "support/taken_in.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

namespace {

using namespace std::string_literals;

constexpr char kNoSender[] =
    "Could not get sender's e-mail address from Reply-To: or From: headers.\n";
constexpr char kNoRecipient[] =
    "Could not get recipient e-mail address from RESP_RECIPIENT environment variable\n";

class Intake : public SandboxTest {
protected:
    // The sender of a message with these header lines, or the line that says that it has none.
    static std::string sender(const std::string& header) {
        const TakenIn taken = take_in(header + "\n\nbody\n");
        EXPECT_EQ(taken.result, taken.reported.empty() ? 0 : 1);
        return taken.result == 0 ? taken.content.sender : taken.reported;
    }

    // The subject of a message with this Subject: line.
    static std::string subject(const std::string& line) {
        const TakenIn taken = take_in("From: a@b.example\n" + line + "\n\nbody\n");
        EXPECT_EQ(taken.result, 0);
        EXPECT_EQ(taken.reported, "");
        return taken.content.subject;
    }
};

TEST_F(Intake, FillsTheWholeRecord) {
    const TakenIn taken = take_in("From: Joe <joe@example.org>\n"
                                  "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?=\n"
                                  "Date: Sat, 21 Nov 2026 07:23:41 +0000 (UTC)\n"
                                  "Content-Type: text/plain; charset=ISO-8859-1\n"
                                  "\n"
                                  "f\xFCr\n"
                                  "dich");
    EXPECT_EQ(taken.result, 0);
    EXPECT_EQ(taken.reported, "");
    EXPECT_EQ(taken.content.sender, "joe@example.org");
    EXPECT_EQ(taken.content.recipient, "info@example.com");
    EXPECT_EQ(taken.content.mailname, "info");
    EXPECT_EQ(taken.content.domain, "example.com");
    EXPECT_EQ(taken.content.subject, "Gr\xC3\xBC\xC3\x9F"
                                     "e");
    EXPECT_EQ(taken.content.date, "Sat, 21 Nov 2026 07:23:41 +0000 (UTC)");
    EXPECT_EQ(taken.content.charset, "ISO-8859-1");
    EXPECT_EQ(taken.content.body, (std::vector<std::string>{"f\xC3\xBCr", "dich", ""}));
}

// The copy

TEST_F(Intake, KeepsACopyForTheOwnerAloneUnderACompletedName) {
    const std::string message = "From: a@b.example\r\n\r\nbody\0\xFF\n"s;
    EXPECT_EQ(take_in(message).result, 0);
    const std::string name = mail_file_name;
    EXPECT_EQ(name.substr(0, 23), "/tmp/qrx-autoresponder-");
    EXPECT_EQ(name.size(), 29U);
    EXPECT_NE(name.substr(23), "XXXXXX");
    EXPECT_EQ("/tmp/" + files_in("/tmp").at(0), name);
    EXPECT_EQ(read_file(name), message + "\n");
    EXPECT_EQ(mode_of(name), 0600U);
}

TEST_F(Intake, KeepsTheCopyAlsoWhereNobodyCanBeAnswered) {
    EXPECT_EQ(take_in("Subject: x\n\nbody").result, 1);
    EXPECT_EQ(read_file(mail_file_name), "Subject: x\n\nbody\n");
}

TEST_F(Intake, LeavesNoDescriptorOpen) {
    take_in("From: a@b.example\n\n");
    const size_t before = files_in("/proc/self/fd").size();
    take_in("From: a@b.example\n\n");
    take_in("");
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

TEST_F(Intake, WithoutAPlaceForTheCopyReadsNothing) {
    std::strcpy(mail_file_name, "/tmp/none/XXXXXX");
    write_file("/tmp/input", "From: a@b.example\n\n");
    const int own_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    const int input = open("/tmp/input", O_RDONLY | O_CLOEXEC);
    dup2(input, STDIN_FILENO);
    Mail_content content;
    int result = 0;
    EXPECT_EQ(standard_error_of([&] { result = parse_message(&content); }),
              "Could not create a temporary file.\n");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(lseek(input, 0, SEEK_CUR), 0);
    EXPECT_EQ(content.sender, "");
    dup2(own_input, STDIN_FILENO);
    close(own_input);
    close(input);
}

// The sender

TEST_F(Intake, SenderIsTheFromMailbox) {
    EXPECT_EQ(sender("From: joe@example.org"), "joe@example.org");
    EXPECT_EQ(sender("From: \"Doe, Joe\" <joe@example.org> (home)"), "joe@example.org");
    EXPECT_EQ(sender("FROM: Joe.Doe@Example.ORG"), "Joe.Doe@Example.ORG");
    EXPECT_EQ(sender("From: \"joe doe\"@example.org"), "\"joe doe\"@example.org");
    EXPECT_EQ(sender("From: joe@[192.0.2.1]"), "joe@[192.0.2.1]");
}

TEST_F(Intake, SenderIsTheReplyToMailboxBeforeTheFromMailbox) {
    EXPECT_EQ(sender("From: joe@example.org\nReply-To: ann@example.net"), "ann@example.net");
    EXPECT_EQ(sender("Reply-To: ann@example.net"), "ann@example.net");
}

TEST_F(Intake, SenderIsTheFirstUsableMailboxOfSeveral) {
    EXPECT_EQ(sender("From: joe@example.org, ann@example.net"), "joe@example.org");
    EXPECT_EQ(sender("From: bad, <>, ann@example.net"), "ann@example.net");
    EXPECT_EQ(sender("Reply-To: bad, ann@example.net, joe@example.org"), "ann@example.net");
}

TEST_F(Intake, SenderIsNeverInsideAGroup) {
    EXPECT_EQ(sender("Reply-To: team: ann@example.net, bob@example.net;\nFrom: joe@example.org"),
              "joe@example.org");
    EXPECT_EQ(sender("Reply-To: team: ann@example.net;, bob@example.net\nFrom: joe@example.org"),
              "bob@example.net");
    EXPECT_EQ(sender("Reply-To: undisclosed-recipients:;\nFrom: joe@example.org"),
              "joe@example.org");
    EXPECT_EQ(sender("From: team: ann@example.net;"), kNoSender);
}

TEST_F(Intake, SenderIsTheFromMailboxWhereReplyToIsInvalidOrEmpty) {
    EXPECT_EQ(sender("Reply-To: bad\nFrom: joe@example.org"), "joe@example.org");
    EXPECT_EQ(sender("Reply-To:\nFrom: joe@example.org"), "joe@example.org");
}

TEST_F(Intake, WithoutASenderFails) {
    EXPECT_EQ(sender("Subject: x"), kNoSender);
    EXPECT_EQ(sender("From: bad"), kNoSender);
    EXPECT_EQ(sender("From:"), kNoSender);
    EXPECT_EQ(sender("Reply-To: bad"), kNoSender);
    EXPECT_EQ(sender("Reply-To: bad\nFrom: bad"), kNoSender);
    EXPECT_EQ(sender("Sender: joe@example.org"), kNoSender);
    EXPECT_EQ(sender("body\nFrom: joe@example.org"), kNoSender);
}

TEST_F(Intake, EmptyMessageFails) {
    const TakenIn taken = take_in("");
    EXPECT_EQ(taken.result, 1);
    EXPECT_EQ(taken.reported, kNoSender);
    EXPECT_EQ(read_file(mail_file_name), "\n");
}

TEST_F(Intake, SenderEndsEachHalfAtItsFirstNul) {
    EXPECT_EQ(sender("From: \"jo\0e\"@example.org"s), "\"jo@example.org");
    EXPECT_EQ(sender("From: joe@[192\0.0.2.1]"s), "joe@[192");
}

// The recipient

TEST_F(Intake, RecipientIsSplitAtItsFirstAt) {
    struct Split {
        const char* recipient;
        const char* mailname;
        const char* domain;
    };
    for (const Split& split : {Split{"info@example.com", "info", "example.com"},
                               {"info", "info", "info"},
                               {"a@b@c", "a", "b@c"},
                               {"@example.com", "", "example.com"},
                               {"info@", "info", ""},
                               {"@", "", ""},
                               {"", "", ""},
                               {" Info@Example.com ", " Info", "Example.com "}}) {
        const TakenIn taken = take_in("From: a@b.example\n\n", split.recipient);
        EXPECT_EQ(taken.result, 0) << split.recipient;
        EXPECT_EQ(taken.content.recipient, split.recipient);
        EXPECT_EQ(taken.content.mailname, split.mailname) << split.recipient;
        EXPECT_EQ(taken.content.domain, split.domain) << split.recipient;
    }
}

TEST_F(Intake, WithoutARecipientFails) {
    const TakenIn taken = take_in("From: a@b.example\n\n", nullptr);
    EXPECT_EQ(taken.result, 1);
    EXPECT_EQ(taken.reported, kNoRecipient);
}

TEST_F(Intake, WithoutSenderAndRecipientReportsTheSender) {
    EXPECT_EQ(take_in("\n", nullptr).reported, kNoSender);
}

// Subject and date

TEST_F(Intake, SubjectIsDecoded) {
    EXPECT_EQ(subject("Subject: Prices"), "Prices");
    EXPECT_EQ(subject("Subject: =?iso-8859-1?Q?Gr=FC=DFe?="), "Gr\xC3\xBC\xC3\x9F"
                                                              "e");
    EXPECT_EQ(subject("Subject: =?utf-8?B?R3LDvMOfZQ==?= dich"), "Gr\xC3\xBC\xC3\x9F"
                                                                 "e dich");
}

TEST_F(Intake, SubjectIsUnfolded) {
    EXPECT_EQ(subject("Subject: one\n two"), "one two");
    EXPECT_EQ(subject("Subject: =?utf-8?Q?a?=\r\n\t=?utf-8?Q?b?="), "ab");
}

TEST_F(Intake, SubjectEndsBeforeTrailingBlanks) {
    EXPECT_EQ(subject("Subject: =?utf-8?Q?a?= \t"), "a");
}

TEST_F(Intake, SubjectIsEmptyWhereThereIsNone) {
    EXPECT_EQ(subject("X-Subject: x"), "");
    EXPECT_EQ(subject("Subject:"), "");
}

TEST_F(Intake, SubjectKeepsNulBytes) {
    EXPECT_EQ(subject("Subject: a\0b"s), "a\0b"s);
    EXPECT_EQ(subject("Subject: =?utf-8?Q?a=00b?="), "a\0b"s);
}

TEST_F(Intake, SubjectInAnUnknownCharsetIsEmptyAndTheBodysCharsetIsNamed) {
    const TakenIn taken = take_in("From: a@b.example\n"
                                  "Subject: =?no-such-charset?Q?a?=\n"
                                  "Content-Type: text/plain; charset=koi8-r\n\nbody\n");
    EXPECT_EQ(taken.result, 0);
    EXPECT_EQ(taken.content.subject, "");
    EXPECT_EQ(taken.reported, "Could not convert message subject text from koi8-r to UTF-8.\n");
}

TEST_F(Intake, BodyAndSubjectAreReportedInThisOrder) {
    const TakenIn taken = take_in("From: a@b.example\n"
                                  "Subject: =?no-such-charset?Q?a?=\n"
                                  "Content-Type: text/plain; charset=none-such\n\nbody\n");
    EXPECT_EQ(taken.result, 0);
    EXPECT_EQ(taken.reported, "Could not convert message body text from none-such to UTF-8.\n"
                              "Could not convert message subject text from none-such to UTF-8.\n");
}

// Not even where a text's conversion is given up for another error.
TEST_F(Intake, ExhaustedMemoryIsCaughtNowhere) {
    write_file("/tmp/input", "From: Joe <joe@example.org>\n"
                             "Subject: =?iso-8859-1?Q?" +
                                 std::string(60, 'x') +
                                 "?=\n"
                                 "Content-Type: text/plain; charset=iso-8859-1\n\n" +
                                 std::string(200'000, '\xFC'));
    setenv("RESP_RECIPIENT", "info@example.com", 1);
    const auto take_in_without = [](size_t call) {
        return isolated::run([=] {
            const UniqueFd input(open("/tmp/input", O_RDONLY | O_CLOEXEC));
            dup2(input.get(), STDIN_FILENO);
            Mail_content content;
            operator_new.refused_call = operator_new.calls + call;
            const int result = parse_message(&content);
            const bool was_refused = operator_new.calls >= operator_new.refused_call;
            operator_new.refused_call = 0;
            return std::to_string(result) + (was_refused ? " refused" : " granted");
        });
    };
    size_t call = 1;
    isolated::Outcome outcome = take_in_without(call);
    for (; call < 1000 && outcome.signal == SIGABRT; outcome = take_in_without(++call))
        EXPECT_EQ(outcome.err, "terminate called after throwing an instance of 'std::bad_alloc'\n"
                               "  what():  std::bad_alloc\n");
    EXPECT_EQ(outcome.result, "0 granted") << "call " << call << ", " << outcome.err;
    EXPECT_GT(call, 20U);
}

TEST_F(Intake, DateIsNotLookedInto) {
    EXPECT_EQ(take_in("From: a@b.example\nDate: the day\n before =?utf-8?Q?a?=\n\n").content.date,
              "the day before =?utf-8?Q?a?=");
    EXPECT_EQ(take_in("From: a@b.example\n\n").content.date, "");
}

} // namespace
