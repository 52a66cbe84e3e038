// Handing the composed reply to sendmail.

#include "autoresponder/delivery.h"

#include "autoresponder/mail_content.h"
#include "lib/text/idn.h"
#include "support/sandbox_test.h"
#include "support/spawned.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Arguments = std::vector<std::string>;

class DeliveryTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        spawned::forget();
        content.recipient = "info@example.com";
        content.sender = "joe@example.org";
        const int fd = mkstemp(resp_uu_file_name);
        ASSERT_GE(fd, 0);
        close(fd);
        write_file(resp_uu_file_name, "From: a\n\nreply\n");
    }

    // What deliver_reply throws and writes, "" for nothing.
    struct Failure {
        std::string thrown;
        std::string written;
    };
    Failure deliver() {
        Failure failure;
        failure.written = standard_error_of([&] {
            try {
                deliver_reply(content);
            } catch (const std::runtime_error& error) {
                failure.thrown = error.what();
            }
        });
        return failure;
    }

    void expect_not_opened(const std::string& reason) {
        const Failure failure = deliver();
        EXPECT_EQ(failure.thrown, "Failed to generate response mail contents");
        EXPECT_EQ(failure.written,
                  "autoresponder: Failed to open temporary file with response mail contents '" +
                      std::string(resp_uu_file_name) + "': " + reason + "\n");
        EXPECT_EQ(spawned::calls().size(), 0U);
    }

    Mail_content content;
};

int count_descriptors() {
    return static_cast<int>(files_in("/proc/self/fd").size());
}

TEST_F(DeliveryTest, GivesTheFileToOneSendmailAndWaitsForIt) {
    const Failure failure = deliver();
    EXPECT_EQ(failure.thrown, "");
    EXPECT_EQ(failure.written, "");
    const std::vector<spawned::Call> calls = spawned::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, "/usr/sbin/sendmail");
    EXPECT_EQ(calls[0].arguments,
              (Arguments{"/usr/sbin/sendmail", "-f", "info@example.com", "joe@example.org"}));
    EXPECT_EQ(calls[0].input, "From: a\n\nreply\n");
    EXPECT_EQ(calls[0].fd_out, STDOUT_FILENO);
    EXPECT_EQ(calls[0].fd_err, STDERR_FILENO);
    EXPECT_TRUE(calls[0].waited_for);
}

TEST_F(DeliveryTest, RemovesTheFileAndClosesIt) {
    spawned::calls();
    const int before = count_descriptors();
    deliver();
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{});
    spawned::forget();
    EXPECT_EQ(count_descriptors(), before);
}

TEST_F(DeliveryTest, EnvelopeSenderIsInAsciiAndTheEnvelopeRecipientAsItStands) {
    content.recipient = "info@b\xC3\xBC"
                        "cher.example";
    content.sender = "jo\xC3\xAB@b\xC3\xBC"
                     "cher.example";
    EXPECT_EQ(deliver().thrown, "");
    // The whole address is converted: "info@bücher" is one label to libidn.
    EXPECT_EQ(
        spawned::calls().at(0).arguments,
        (Arguments{"/usr/sbin/sendmail", "-f", "xn--info@bcher-feb.example", content.sender}));
}

TEST_F(DeliveryTest, SenderThatLooksLikeAnOptionIsPassedAsItStands) {
    content.sender = "-bs@example.org";
    deliver();
    EXPECT_EQ(spawned::calls().at(0).arguments,
              (Arguments{"/usr/sbin/sendmail", "-f", "info@example.com", "-bs@example.org"}));
}

TEST_F(DeliveryTest, MissingFileIsReportedAndThrown) {
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    expect_not_opened("No such file or directory (2)");
}

TEST_F(DeliveryTest, SymbolicLinkInThePlaceOfTheFileIsNotFollowed) {
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    write_file("/tmp/secret", "secret");
    ASSERT_EQ(symlink("/tmp/secret", resp_uu_file_name), 0);
    expect_not_opened("Too many levels of symbolic links (40)");
}

TEST_F(DeliveryTest, FifoInThePlaceOfTheFileIsRefused) {
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    ASSERT_EQ(mkfifo(resp_uu_file_name, 0600), 0);
    expect_not_opened("Permission denied (13)");
}

TEST_F(DeliveryTest, UnstartedSendmailIsReportedAndThrownAndTheFileStays) {
    const int before = count_descriptors();
    spawned::fail_next(EAGAIN);
    const Failure failure = deliver();
    EXPECT_EQ(failure.thrown, "Failed to spawn sendmail to send response mail");
    EXPECT_EQ(failure.written, "autoresponder: Failed to spawn sendmail for response: Resource "
                               "temporarily unavailable (11)\n");
    EXPECT_EQ(read_file(resp_uu_file_name), "From: a\n\nreply\n");
    EXPECT_EQ(count_descriptors(), before);
}

TEST_F(DeliveryTest, RecipientWithoutAsciiFormIsThrownAndNothingIsStarted) {
    content.recipient = std::string(64, 'a') + ".example";
    try {
        deliver_reply(content);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const quarx::idn::IdnaError& error) {
        EXPECT_STREQ(error.what(), "Invalid length");
    }
    EXPECT_EQ(spawned::calls().size(), 0U);
    EXPECT_EQ(read_file(resp_uu_file_name), "From: a\n\nreply\n");
}

TEST_F(DeliveryTest, FileIsOpenedBeforeTheRecipientIsConverted) {
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    content.recipient = std::string(64, 'a') + ".example";
    expect_not_opened("No such file or directory (2)");
}

} // namespace
