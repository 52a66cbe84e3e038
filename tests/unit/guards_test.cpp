// The guards against answering oneself or a bounce daemon.

#include "autoresponder/guards.h"

#include "autoresponder/mail_content.h"

#include <gtest/gtest.h>

namespace {

constexpr char kSelf[] = "Field From: equial field To:";
constexpr char kDaemon[] = "Field From: contains MAILER-DAEMON";

// "" stands for a sender who may be answered.
std::string refusal(const std::string& sender, const std::string& recipient = "info@example.com") {
    Mail_content content;
    content.sender = sender;
    content.recipient = recipient;
    const char* line = refusal_of_sender(content);
    return line == nullptr ? "" : line;
}

TEST(Guards, RefuseTheRecipientItself) {
    EXPECT_EQ(refusal("info@example.com"), kSelf);
}

TEST(Guards, PassTheRecipientInOtherLetterCase) {
    EXPECT_EQ(refusal("Info@example.com"), "");
    EXPECT_EQ(refusal("info@Example.com"), "");
}

TEST(Guards, PassAPieceOfTheRecipientAndMoreThanIt) {
    EXPECT_EQ(refusal("info@example.co"), "");
    EXPECT_EQ(refusal("info@example.com.org"), "");
    EXPECT_EQ(refusal("an.info@example.com"), "");
}

TEST(Guards, CompareBytesBehindANul) {
    using namespace std::string_literals;
    EXPECT_EQ(refusal("a@b\0c"s, "a@b\0d"s), "");
    EXPECT_EQ(refusal("a@b\0c"s, "a@b\0c"s), kSelf);
}

TEST(Guards, RefuseEachDaemonName) {
    EXPECT_EQ(refusal("MAILER-DAEMON@example.org"), kDaemon);
    EXPECT_EQ(refusal("mailer-daemon@example.org"), kDaemon);
    EXPECT_EQ(refusal("DrWEB-DAEMON@example.org"), kDaemon);
}

TEST(Guards, RefuseADaemonNameAnywhereInTheAddress) {
    EXPECT_EQ(refusal("owner-mailer-daemon@example.org"), kDaemon);
    EXPECT_EQ(refusal("MAILER-DAEMON-1@example.org"), kDaemon);
    EXPECT_EQ(refusal("joe@mailer-daemon.example.org"), kDaemon);
    EXPECT_EQ(refusal("@DrWEB-DAEMON"), kDaemon);
}

TEST(Guards, PassDaemonNamesInOtherLetterCase) {
    EXPECT_EQ(refusal("Mailer-Daemon@example.org"), "");
    EXPECT_EQ(refusal("Mailer-DAEMON@example.org"), "");
    EXPECT_EQ(refusal("drweb-daemon@example.org"), "");
    EXPECT_EQ(refusal("DRWEB-DAEMON@example.org"), "");
}

TEST(Guards, PassWhatOnlyResemblesADaemonName) {
    EXPECT_EQ(refusal("MAILER-DAEMO@example.org"), "");
    EXPECT_EQ(refusal("mailer_daemon@example.org"), "");
    EXPECT_EQ(refusal("daemon@example.org"), "");
}

TEST(Guards, NameTheRecipientFirstWhereBothHold) {
    EXPECT_EQ(refusal("mailer-daemon@a", "mailer-daemon@a"), kSelf);
}

TEST(Guards, LookAtTheSenderAlone) {
    EXPECT_EQ(refusal("joe@example.org", "mailer-daemon@example.com"), "");
}

} // namespace
