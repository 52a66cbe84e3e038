// The notification of a domain's client about missing attachment files.

#include "autoresponder/notify.h"

#include "autoresponder/mail_content.h"
#include "support/panel.h"
#include "support/spawned.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

// The next pipe's write end can't be written to.
static bool next_write_end_is_unusable = false;

extern "C" {
int __real_pipe2(int* ends, int flags);
int __wrap_pipe2(int* ends, int flags) {
    const int result = __real_pipe2(ends, flags);
    if (result == 0 && std::exchange(next_write_end_is_unusable, false))
        dup3(ends[0], ends[1], O_CLOEXEC);
    return result;
}
}

namespace {

using Texts = std::vector<std::string>;

constexpr char kClientQuery[] = "select c.email, c.pname, c.login from clients c, domains d where "
                                "d.cl_id=c.id and d.name='example.com'";

// The text

Mail_content info_mailbox() {
    Mail_content content;
    content.mailname = "info";
    content.domain = "example.com";
    return content;
}

TEST(NotificationText, NamesTheClientTheMailboxAndTheFiles) {
    const Notification notification{"", "admin@panel.example", "ann@example.net", "Ann Client",
                                    "price list.pdf\nmap.png\n"};
    EXPECT_EQ(notification_text(notification, info_mailbox()),
              "From: admin@panel.example\n"
              "To: ann@example.net\n"
              "CC: \n"
              "Subject: qrx notification (files missing in attachments repository). \n"
              "Content-Type: text/plain; charset=utf-8\n"
              "Content-Disposition: inline\n"
              "Content-Transfer-Encoding: 8bit\n"
              "\n"
              "\n"
              "Notification for qrx client 'Ann Client'.\n"
              "\n"
              "The following files are missing in the attachment repository\n"
              "for the mailname 'info' on domain 'example.com':\n"
              "price list.pdf\n"
              "map.png\n"
              "\n");
}

TEST(NotificationText, ReplyToRunsIntoTheFrom) {
    const Notification notification{"sales@example.com", "admin@panel.example", "a", "b", "c\n"};
    const std::string text = notification_text(notification, info_mailbox());
    EXPECT_EQ(text.substr(0, text.find("CC")),
              "Reply-To: sales@example.comFrom: admin@panel.example\nTo: a\n");
}

TEST(NotificationText, NothingIsEncoded) {
    Mail_content content;
    content.mailname = "'o\xC3\xA9'";
    content.domain = "b\xC3\xBC\\";
    const Notification notification{"", "\xC3\xA4@b", "\xC3\xB6@c", "J\xC3\xBCrgen", "\xC3\x9F\n"};
    const std::string text = notification_text(notification, content);
    EXPECT_EQ(text.substr(0, text.find("CC")), "From: \xC3\xA4@b\nTo: \xC3\xB6@c\n");
    EXPECT_NE(text.find("client 'J\xC3\xBCrgen'.\n"), std::string::npos);
    EXPECT_NE(text.find("mailname ''o\xC3\xA9'' on domain 'b\xC3\xBC\\':\n\xC3\x9F\n\n"),
              std::string::npos);
}

// The sending

class NotifyTest : public PanelTest {
protected:
    void SetUp() override {
        PanelTest::SetUp();
        std::signal(SIGPIPE, SIG_IGN);
        spawned::forget();
        panel::run("insert into domains set name='example.com', cl_id=2");
    }

    // Columns as SQL has them.
    static void have_client(const std::string& email = "'ann@example.net'",
                            const std::string& pname = "'Ann Client'",
                            const std::string& login = "'ann'") {
        panel::run("insert into clients set id=2, email=" + email + ", pname=" + pname +
                   ", login=" + login);
    }

    static void have_parameter(const std::string& name, const std::string& value) {
        panel::run("insert into misc set param='" + name + "', val=" + value);
    }

    // What is reported.
    std::string notify(const std::string& reply_to = "", const std::string& missing = "gone\n") {
        return standard_error_of([&] {
            notify_missing_attachments(connection(), info_mailbox(), "example.com", reply_to,
                                       missing);
        });
    }

    // The sender's address, from the one call's arguments and its From: line alike.
    static std::string sender() {
        const std::vector<spawned::Call> calls = spawned::calls();
        if (calls.size() != 1 || calls[0].arguments.size() != 4)
            return "calls: " + std::to_string(calls.size());
        EXPECT_EQ(calls[0].input.substr(0, calls[0].input.find('\n')),
                  "From: " + calls[0].arguments[2]);
        return calls[0].arguments[2];
    }

    static std::string client_name() {
        const std::string text = spawned::calls().at(0).input;
        const size_t at = text.find("Notification for ");
        return text.substr(at, text.find('\n', at) - at);
    }

    static void expect_nothing_started() { EXPECT_EQ(spawned::calls().size(), 0U); }
};

TEST_F(NotifyTest, GivesTheTextToOneSendmailAndWaitsForIt) {
    have_client();
    have_parameter("admin_email", "'admin@panel.example'");
    EXPECT_EQ(notify("sales@example.com", "b\na\nc\n"), "");
    const std::vector<spawned::Call> calls = spawned::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, "/usr/sbin/sendmail");
    EXPECT_EQ(calls[0].arguments,
              (Texts{"/usr/sbin/sendmail", "-f", "admin@panel.example", "ann@example.net"}));
    EXPECT_EQ(calls[0].input, notification_text({"sales@example.com", "admin@panel.example",
                                                 "ann@example.net", "Ann Client", "b\na\nc\n"},
                                                info_mailbox()));
    EXPECT_EQ(calls[0].fd_out, STDOUT_FILENO);
    EXPECT_EQ(calls[0].fd_err, STDERR_FILENO);
    EXPECT_TRUE(calls[0].waited_for);
    EXPECT_EQ(panel::statements().at(0), kClientQuery);
}

TEST_F(NotifyTest, LongListsArriveWhole) {
    have_client();
    std::string missing;
    for (int i = 0; i < 20000; ++i)
        missing += "missing file " + std::to_string(i) + "\n";
    notify("", missing);
    const std::string input = spawned::calls().at(0).input;
    EXPECT_EQ(input.size(),
              notification_text({"", "root@localhost", "ann@example.net", "Ann Client", missing},
                                info_mailbox())
                  .size());
    EXPECT_TRUE(input.ends_with("':\n" + missing + "\n"));
}

TEST_F(NotifyTest, SenderIsTheAdministrator) {
    have_client();
    have_parameter("admin_email", "'admin@panel.example'");
    have_parameter("FullHostName", "'host.example'");
    notify();
    EXPECT_EQ(sender(), "admin@panel.example");
}

TEST_F(NotifyTest, SenderIsRootOfTheHostWithoutAnAdministrator) {
    have_client();
    have_parameter("FullHostName", "'host.example'");
    notify();
    EXPECT_EQ(sender(), "root@host.example");
}

TEST_F(NotifyTest, SenderIsRootOfTheHostWithAnEmptyAdministrator) {
    have_client();
    have_parameter("admin_email", "''");
    have_parameter("FullHostName", "'host.example'");
    notify();
    EXPECT_EQ(sender(), "root@host.example");
}

TEST_F(NotifyTest, SenderIsRootOfThisHostWithoutEither) {
    have_client();
    notify();
    EXPECT_EQ(sender(), "root@localhost");
}

TEST_F(NotifyTest, SenderIsRootOfThisHostWithBothEmptyOrNull) {
    have_client();
    have_parameter("admin_email", "NULL");
    have_parameter("FullHostName", "''");
    notify();
    EXPECT_EQ(sender(), "root@localhost");
}

TEST_F(NotifyTest, ClientIsNamedByItsLoginWithoutAName) {
    for (const char* pname : {"''", "NULL"}) {
        panel::run("truncate table clients");
        have_client("'ann@example.net'", pname);
        spawned::forget();
        notify();
        EXPECT_EQ(client_name(), "Notification for qrx client 'ann'.") << pname;
    }
}

TEST_F(NotifyTest, ClientWithoutNameAndLoginHasAnEmptyName) {
    have_client("'ann@example.net'", "NULL", "NULL");
    notify();
    EXPECT_EQ(client_name(), "Notification for qrx client ''.");
}

TEST_F(NotifyTest, ClientWithoutAnAddressIsPassedOverInSilence) {
    for (const char* email : {"''", "NULL"}) {
        panel::run("truncate table clients");
        have_client(email);
        panel::forget_statements();
        EXPECT_EQ(notify(), "") << email;
        EXPECT_EQ(panel::statements(), Texts{kClientQuery}) << email;
        expect_nothing_started();
    }
}

TEST_F(NotifyTest, DomainWithoutAClientIsReported) {
    EXPECT_EQ(notify(), "This client does not exist :\n");
    expect_nothing_started();
}

TEST_F(NotifyTest, UnknownDomainIsReported) {
    have_client();
    panel::run("truncate table domains");
    EXPECT_EQ(notify(), "This client does not exist :\n");
    expect_nothing_started();
}

TEST_F(NotifyTest, FailedQueryIsReportedAndTheRunGoesOn) {
    have_client();
    panel::refuse_statement(1);
    EXPECT_EQ(notify(), std::string("Unable to define client email and personal name :") +
                            panel::kRefusal + "\n");
    expect_nothing_started();
}

TEST_F(NotifyTest, UnmadePipeIsReported) {
    have_client();
    const size_t before = files_in("/proc/self/fd").size();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    // All that is needed is open already; poll(2) on the connection asks for a limit of one.
    const std::string reported = standard_error_of([&] {
        const rlimit no_more{1, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &no_more);
        notify_missing_attachments(connection(), info_mailbox(), "example.com", "", "gone\n");
        setrlimit(RLIMIT_NOFILE, &limit);
    });
    EXPECT_EQ(reported, "autoresponder: Failed to create pipe to sendmail to notify about missing "
                        "attachment files: Too many open files (24)\n");
    expect_nothing_started();
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

TEST_F(NotifyTest, UnstartedSendmailIsReportedAndThePipeClosed) {
    have_client();
    const size_t before = files_in("/proc/self/fd").size();
    spawned::fail_next(EAGAIN);
    EXPECT_EQ(notify(),
              "autoresponder: Failed to spawn sendmail to notify about missing attachment files: "
              "Resource temporarily unavailable (11)\n");
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

TEST_F(NotifyTest, UnusableStreamIsReportedAndTheChildWaitedFor) {
    have_client();
    next_write_end_is_unusable = true;
    EXPECT_EQ(notify(), "Unable to send mail with notify of not exist attachment.\n");
    const std::vector<spawned::Call> calls = spawned::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].input, "");
    EXPECT_TRUE(calls[0].waited_for);
}

TEST_F(NotifyTest, ChildThatReadsNothingIsNoFailure) {
    have_client();
    spawned::end_next_early();
    EXPECT_EQ(notify("", std::string(200000, 'x') + "\n"), "");
    EXPECT_TRUE(spawned::calls().at(0).waited_for);
}

TEST_F(NotifyTest, NoDescriptorIsLeft) {
    have_client();
    const size_t before = files_in("/proc/self/fd").size();
    notify();
    spawned::forget();
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

} // namespace
