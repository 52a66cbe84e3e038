// Forwarding of the incoming message.

#include "autoresponder/forward.h"

#include "autoresponder/mail_content.h"
#include "lib/db/quarx_db.h"
#include "support/panel.h"
#include "support/spawned.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::Eq;
using testing::ExitedWithCode;
using Arguments = std::vector<std::string>;

const std::string kMessage("From: joe\r\n\nbody\0\xFF\n\n", 20);

class ForwardTest : public PanelTest {
protected:
    void SetUp() override {
        PanelTest::SetUp();
        spawned::forget();
        content.recipient = "info@b\xC3\xBC"
                            "cher.example";
        const int fd = mkstemp(mail_file_name);
        ASSERT_GE(fd, 0);
        close(fd);
        write_file(mail_file_name, kMessage);
    }

    // `value` as SQL has it.
    static void have_address(const std::string& value, const std::string& responder = "7") {
        panel::run("insert into resp_forward set rn_id=" + responder + ", address=" + value);
    }

    std::string forward(const std::string& responder = "7") {
        return standard_error_of([&] { forward_message(connection(), content, responder); });
    }

    // The arguments behind "sendmail -f RECIPIENT" of the one call.
    Arguments addresses() {
        const std::vector<spawned::Call> calls = spawned::calls();
        if (calls.size() != 1 || calls[0].arguments.size() < 3)
            return {"calls: " + std::to_string(calls.size())};
        EXPECT_EQ(Arguments(calls[0].arguments.begin(), calls[0].arguments.begin() + 3),
                  (Arguments{"/usr/sbin/sendmail", "-f", content.recipient}));
        return {calls[0].arguments.begin() + 3, calls[0].arguments.end()};
    }

    void expect_not_opened(const std::string& reason) {
        have_address("'ann@example.net'");
        EXPECT_EQ(forward(),
                  "autoresponder: Failed to open temporary file with forward mail contents '" +
                      std::string(mail_file_name) + "': " + reason + "\n");
        EXPECT_EQ(spawned::calls().size(), 0U);
    }

    Mail_content content;
};

TEST_F(ForwardTest, GivesTheCopyToOneSendmailAndWaitsForIt) {
    have_address("'ann@example.net'");
    EXPECT_EQ(forward(), "");
    const std::vector<spawned::Call> calls = spawned::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, "/usr/sbin/sendmail");
    EXPECT_EQ(calls[0].input, kMessage);
    EXPECT_EQ(calls[0].fd_out, STDOUT_FILENO);
    EXPECT_EQ(calls[0].fd_err, STDERR_FILENO);
    EXPECT_TRUE(calls[0].waited_for);
    EXPECT_EQ(panel::statements(), Arguments{"select address from resp_forward where rn_id=7"});
    EXPECT_EQ(read_file(mail_file_name), kMessage) << "the copy is kept";
}

TEST_F(ForwardTest, EnvelopeSenderIsTheRecipientAsItStands) {
    have_address("'ann@example.net'");
    forward();
    EXPECT_EQ(spawned::calls().at(0).arguments, (Arguments{"/usr/sbin/sendmail", "-f",
                                                           "info@b\xC3\xBC"
                                                           "cher.example",
                                                           "ann@example.net"}));
}

TEST_F(ForwardTest, AllAddressesGoOnOneCommandLineInRowOrder) {
    have_address("'c@example.net'");
    have_address("'a@example.net'");
    have_address("'b@example.net'");
    forward();
    EXPECT_EQ(addresses(), (Arguments{"c@example.net", "a@example.net", "b@example.net"}));
}

TEST_F(ForwardTest, NullAddressesAreLeftOutAndEmptyOnesKept) {
    have_address("NULL");
    have_address("'a@example.net'");
    have_address("''");
    have_address("NULL");
    forward();
    EXPECT_EQ(addresses(), (Arguments{"a@example.net", ""}));
}

TEST_F(ForwardTest, AddressThatLooksLikeAnOptionIsPassedAsItStands) {
    have_address("'-t'");
    have_address("' a@example.net '");
    forward();
    EXPECT_EQ(addresses(), (Arguments{"-t", " a@example.net "}));
}

TEST_F(ForwardTest, AddressEndsAtItsFirstNul) {
    have_address("'a@example.net\\0b'");
    forward();
    EXPECT_EQ(addresses(), Arguments{"a@example.net"});
}

TEST_F(ForwardTest, WithoutAddressesNothingIsStartedOrOpened) {
    ASSERT_EQ(unlink(mail_file_name), 0);
    have_address("'a@example.net'", "8");
    EXPECT_EQ(forward(), "");
    EXPECT_EQ(spawned::calls().size(), 0U);
}

TEST_F(ForwardTest, WithNullAddressesAloneNothingIsStartedOrOpened) {
    ASSERT_EQ(unlink(mail_file_name), 0);
    have_address("NULL");
    EXPECT_EQ(forward(), "");
    EXPECT_EQ(spawned::calls().size(), 0U);
}

TEST_F(ForwardTest, EachResponderForwardsTheWholeCopyToItsOwnAddresses) {
    have_address("'a@example.net'", "7");
    have_address("'b@example.net'", "8");
    forward("7");
    forward("8");
    const std::vector<spawned::Call> calls = spawned::calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].arguments.back(), "a@example.net");
    EXPECT_EQ(calls[1].arguments.back(), "b@example.net");
    EXPECT_EQ(calls[0].input, kMessage);
    EXPECT_EQ(calls[1].input, kMessage);
}

TEST_F(ForwardTest, MissingCopyIsReported) {
    ASSERT_EQ(unlink(mail_file_name), 0);
    expect_not_opened("No such file or directory (2)");
}

TEST_F(ForwardTest, SymbolicLinkInThePlaceOfTheCopyIsNotFollowed) {
    ASSERT_EQ(unlink(mail_file_name), 0);
    write_file("/tmp/secret", "secret");
    ASSERT_EQ(symlink("/tmp/secret", mail_file_name), 0);
    expect_not_opened("Too many levels of symbolic links (40)");
}

TEST_F(ForwardTest, FifoInThePlaceOfTheCopyIsRefused) {
    ASSERT_EQ(unlink(mail_file_name), 0);
    ASSERT_EQ(mkfifo(mail_file_name, 0600), 0);
    expect_not_opened("Permission denied (13)");
}

TEST_F(ForwardTest, UnstartedSendmailIsReported) {
    have_address("'ann@example.net'");
    const size_t before = files_in("/proc/self/fd").size();
    spawned::fail_next(ENOMEM);
    EXPECT_EQ(forward(), "autoresponder: Failed to spawn sendmail for forwarding: Cannot allocate "
                         "memory (12)\n");
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

TEST_F(ForwardTest, FailedQueryEndsTheRun) {
    have_address("'ann@example.net'");
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            panel::refuse_statement(1);
            forward_message(own.get(), content, "7");
        },
        ExitedWithCode(0),
        Eq(std::string("autoresponder: Unable to exec query :") + panel::kRefusal + "\n"));
    EXPECT_EQ(files_in("/tmp"), Arguments{}) << "the run's end removes its files";
}

} // namespace
