// The responder logic from the recipient to the replies, against the real database.

#include "autoresponder/responder.h"

#include "autoresponder/mail_content.h"
#include "support/isolated.h"
#include "support/operator_new.h"
#include "support/panel.h"
#include "support/spawned.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <unistd.h>

// malloc(3) of one size that finds no memory.
static size_t refused_malloc = 0;

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return size == refused_malloc ? nullptr : __real_malloc(size);
}

namespace {

using Texts = std::vector<std::string>;

constexpr char kConnect[] = "SET NAMES utf8";
constexpr char kMailboxQuery[] = "select m.id, m.mail_name, d.name from mail m, domains d where "
                                 "m.dom_id=d.id and d.name='example.com' and m.mail_name='info'";
constexpr char kResponderQuery[] =
    "select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, "
    "charset, content_type from mail_resp where mn_id=5";

Texts joined(Texts texts, const Texts& more) {
    texts.insert(texts.end(), more.begin(), more.end());
    return texts;
}

std::string lines(const Texts& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += text + "\n";
    return all;
}

class ResponderTest : public PanelTest {
protected:
    void SetUp() override {
        PanelTest::SetUp();
        panel::run("insert into domains set id=3, name='example.com'");
        panel::run("insert into mail set id=5, mail_name='info', dom_id=3");
        content.sender = "joe@example.org";
        content.recipient = "info@example.com";
        content.mailname = "info";
        content.domain = "example.com";
        content.subject = "Prices";
        content.body = {"How much", "is it?"};
    }

    static void have_responder(const std::string& columns, const std::string& id = "7") {
        panel::run("insert into mail_resp set mn_id=5, id=" + id + (columns.empty() ? "" : ", ") +
                   columns);
    }

    // What a run shows: the statements, or the calls of sendmail, in their order.
    std::string statements() {
        return isolated::run([&] {
                   spawned::forget();
                   panel::forget_statements();
                   db_mail_act(&content);
                   return lines(panel::statements());
               })
            .result;
    }
    isolated::Outcome run() {
        return isolated::run([&] {
            const int result = db_mail_act(&content);
            std::string all = "returned " + std::to_string(result) + "\n";
            for (const spawned::Call& call : spawned::calls())
                all += "to " + call.arguments.back() + ": " + first_line_of_text(call.input) + "\n";
            return all;
        });
    }

    static std::string first_line_of_text(const std::string& mail) {
        const size_t begin = mail.find("\n\n") + 2;
        return mail.substr(begin, mail.find('\n', begin) - begin);
    }

    // The run ends by status 1 with this message, and its files stay.
    void expect_fatal(const std::string& message, const std::string& reported_before = "") {
        write_file(mail_file_name, "message");
        const isolated::Outcome outcome = run();
        EXPECT_EQ(outcome.exit_status, 1) << isolated::describe(outcome);
        EXPECT_EQ(outcome.err.substr(0, outcome.err.find("System error")),
                  reported_before + "prog: " + message + "\n");
        EXPECT_EQ(reported_before + outcome.out, outcome.err);
        const Texts files = files_in("/tmp");
        EXPECT_EQ(files.size(), 2U) << "the message's copy and the reply stay";
    }

    // The run ends so when no memory is to be had for a text of megabytes.
    void expect_exhausted_memory() {
        const isolated::Outcome outcome = isolated::run([&] {
            operator_new.refused_size = 1000000;
            db_mail_act(&content);
            return std::string();
        });
        EXPECT_OUTCOME(outcome, 1,
                       "prog: Program failed due to exhausted memory\n"
                       "System error 12: Cannot allocate memory\n",
                       outcome.out);
        EXPECT_EQ(files_in("/tmp").size(), 1U) << "the message's copy stays";
    }

    Mail_content content;
};

// Rows for one responder in resp_freq, resp_forward, resp_attach, as asked by their statements.
Texts limit_statements(const std::string& id) {
    return {"delete from resp_freq where rn_id=" + id +
                " and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0",
            "select COUNT(*) from resp_freq where rn_id=" + id,
            "select num from resp_freq where rn_id=" + id + " and email='joe@example.org'",
            "insert into resp_freq set rn_id=" + id + ", email='joe@example.org', num=1"};
}
Texts reply_statements(const std::string& id) {
    return {"select address from resp_forward where rn_id=" + id,
            "select filename from resp_attach where rn_id=" + id};
}

TEST_F(ResponderTest, MailboxWithoutRespondersEndsQuietly) {
    EXPECT_OUTCOME(run(), isolated::kReturned, "", "");
    EXPECT_EQ(run().result, "returned 0\n");
    EXPECT_EQ(statements(), lines({kConnect, kMailboxQuery, kResponderQuery}));
}

TEST_F(ResponderTest, ResponderIsAskedLimitedForwardedAndAnsweredInThisOrder) {
    have_responder("resp_on='true', text='hello'");
    EXPECT_EQ(statements(), lines(joined(joined({kConnect, kMailboxQuery, kResponderQuery},
                                                limit_statements("7")),
                                         reply_statements("7"))));
}

TEST_F(ResponderTest, EveryResponderThatAppliesAnswersInRowOrder) {
    have_responder("resp_on='true', text='first'", "7");
    have_responder("resp_on='false', text='off'", "8");
    have_responder("text='off by default'", "9");
    have_responder("resp_on='true', text='no match', key_where='subj', keystr='Cost'", "10");
    have_responder("resp_on='true', text='by subject', key_where='subj', keystr='rice'", "11");
    have_responder("resp_on='true', text='by body', key_where='body', keystr='is it'", "12");
    have_responder("resp_on='true', text='never', ans_freq='0'", "13");
    EXPECT_EQ(run().result, "returned 0\n"
                            "to joe@example.org: first\n"
                            "to joe@example.org: by subject\n"
                            "to joe@example.org: by body\n");
}

TEST_F(ResponderTest, RespondersThatDoNotApplyAskTheDatabaseNothing) {
    have_responder("resp_on='false'", "7");
    have_responder("resp_on='true', key_where='subj', keystr='Cost'", "8");
    EXPECT_EQ(statements(), lines({kConnect, kMailboxQuery, kResponderQuery}));
}

TEST_F(ResponderTest, LimitedResponderNeitherForwardsNorAnswers) {
    have_responder("resp_on='true', ans_freq='1'");
    panel::run("insert into resp_forward set rn_id=7, address='ann@example.net'");
    panel::run("insert into resp_freq set rn_id=7, email='joe@example.org', num=1");
    EXPECT_EQ(run().result, "returned 0\n");
    const Texts limit = limit_statements("7");
    EXPECT_EQ(statements(),
              lines({kConnect, kMailboxQuery, kResponderQuery, limit[0], limit[1], limit[2]}));
}

TEST_F(ResponderTest, ForwardNotificationAndReplyFollowInThisOrder) {
    write_file(mail_file_name, "Subject: Prices\n\nHow much\n");
    panel::run("update domains set cl_id=2");
    panel::run("insert into clients set id=2, email='client@example.net'");
    have_responder("resp_on='true', text='hello'");
    panel::run("insert into resp_forward set rn_id=7, address='ann@example.net'");
    panel::run("insert into resp_attach set rn_id=7, filename='gone'");
    EXPECT_EQ(run().result, "returned 0\n"
                            "to ann@example.net: How much\n"
                            "to client@example.net: \n"
                            "to joe@example.org: hello\n");
}

TEST_F(ResponderTest, FailedForwardDoesNotStopTheReply) {
    have_responder("resp_on='true', text='hello'");
    panel::run("insert into resp_forward set rn_id=7, address='ann@example.net'");
    const isolated::Outcome outcome = run();
    EXPECT_EQ(outcome.result, "returned 0\nto joe@example.org: hello\n");
    EXPECT_EQ(outcome.err,
              "autoresponder: Failed to open temporary file with forward mail contents "
              "'/tmp/qrx-autoresponder-XXXXXX': No such file or directory (2)\n");
}

TEST_F(ResponderTest, AttachmentsAreLookedForInTheMailboxesFolder) {
    std::filesystem::create_directories("/var/qmail/mailnames/example.com/info/@attachments");
    write_file("/var/qmail/mailnames/example.com/info/@attachments/file", "A");
    have_responder("resp_on='true', text='hello'");
    panel::run("insert into resp_attach set rn_id=7, filename='file'");
    const isolated::Outcome outcome = isolated::run([&] {
        db_mail_act(&content);
        return spawned::calls().at(0).input;
    });
    EXPECT_NE(outcome.result.find("\tfilename=\"file\"\n\nQQ==\n\n--"), std::string::npos)
        << outcome.result;
    EXPECT_EQ(outcome.err, "");
}

TEST_F(ResponderTest, NamesAreEscapedForTheDatabase) {
    content.mailname = "o'l\\";
    content.domain = "a\"b'";
    const isolated::Outcome outcome = isolated::run([&] {
        atexit([] { std::fputs(lines(panel::statements()).c_str(), stdout); });
        db_mail_act(&content);
        return std::string();
    });
    EXPECT_EQ(outcome.exit_status, 0);
    EXPECT_EQ(outcome.err, "autoresponder: Mailname not found: o'l\\@a\"b'\n");
    EXPECT_NE(outcome.out.find("d.name='a\\\"b\\'' and m.mail_name='o\\'l\\\\'"), std::string::npos)
        << outcome.out;
}

// The end by correct_exit

TEST_F(ResponderTest, NoRoomForAnEscapedNameEndsTheRunBeforeConnecting) {
    for (const size_t length : std::initializer_list<size_t>{5000, 6000}) {
        content.domain = std::string(5000, 'd');
        content.mailname = std::string(6000, 'm');
        const isolated::Outcome outcome = isolated::run([&] {
            atexit([] { std::fputs(lines(panel::statements()).c_str(), stdout); });
            panel::forget_statements();
            refused_malloc = 2 * length + 1;
            db_mail_act(&content);
            return std::string();
        });
        EXPECT_OUTCOME(outcome, 0, "", "autoresponder: Unable to alloc memory\n");
    }
}

TEST_F(ResponderTest, NoConnectionEndsTheRun) {
    write_file(mail_file_name, "message");
    std::filesystem::rename("/etc/qrx/.qrx.shadow", "/etc/qrx/elsewhere");
    const isolated::Outcome outcome = run();
    std::filesystem::rename("/etc/qrx/elsewhere", "/etc/qrx/.qrx.shadow");
    EXPECT_EQ(outcome.exit_status, 0) << isolated::describe(outcome);
    EXPECT_TRUE(
        outcome.err.ends_with("\nautoresponder: Unable to connect to the mysql database \n"))
        << outcome.err;
    EXPECT_EQ(files_in("/tmp"), Texts{});
}

TEST_F(ResponderTest, FailedResponderQueryEndsTheRun) {
    write_file(mail_file_name, "message");
    const isolated::Outcome outcome = isolated::run([&] {
        panel::refuse_statement(3);
        db_mail_act(&content);
        return std::string();
    });
    EXPECT_OUTCOME(outcome, 0, "",
                   std::string("autoresponder: Unable to exec query :") + panel::kRefusal + "\n");
    EXPECT_EQ(files_in("/tmp"), Texts{});
}

// The end by status 1

TEST_F(ResponderTest, UnknownCharsetIsASendError) {
    have_responder("resp_on='true', charset='none-such'");
    expect_fatal("Send error: Cannot convert from UTF-8 to none-such");
}

TEST_F(ResponderTest, UnstartedSendmailIsASendError) {
    have_responder("resp_on='true'");
    spawned::fail_next(EAGAIN);
    expect_fatal("Send error: Failed to spawn sendmail to send response mail",
                 "autoresponder: Failed to spawn sendmail for response: Resource temporarily "
                 "unavailable (11)\n");
    spawned::forget();
}

TEST_F(ResponderTest, RecipientWithoutAsciiFormIsAnIdnError) {
    have_responder("resp_on='true'");
    content.recipient = std::string(64, 'a') + "@example.com";
    expect_fatal("IDN conversion error: Invalid length");
}

TEST_F(ResponderTest, ExhaustedMemoryIsReported) {
    have_responder("resp_on='true', text=repeat('x', 3000000)");
    write_file(mail_file_name, "message");
    expect_exhausted_memory();
}

TEST_F(ResponderTest, ExhaustedMemoryInForwardingIsReported) {
    have_responder("resp_on='true'");
    panel::run("alter table resp_forward modify address mediumtext");
    panel::run("insert into resp_forward set rn_id=7, address=repeat('x', 3000000)");
    write_file(mail_file_name, "message");
    expect_exhausted_memory();
    EXPECT_EQ(panel::value("select rn_id from resp_freq"), "7") << "it was counted before";
}

TEST_F(ResponderTest, ExceptionOfAnotherTypeIsNotCaught) {
    have_responder("resp_on='true', text=repeat('x', 3000000)");
    write_file(mail_file_name, "message");
    const isolated::Outcome outcome = isolated::run([&] {
        operator_new.refused_size = 1000000;
        operator_new.refusal_is_a_logic_error = true;
        db_mail_act(&content);
        return std::string();
    });
    EXPECT_EQ(outcome.signal, SIGABRT) << isolated::describe(outcome);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "terminate called after throwing an instance of 'std::logic_error'\n"
                           "  what():  refused\n");
    EXPECT_EQ(files_in("/tmp").size(), 1U) << "the message's copy stays";
}

TEST_F(ResponderTest, FatalErrorStopsTheRespondersBehindIt) {
    have_responder("resp_on='true', text='before'", "7");
    have_responder("resp_on='true', charset='none-such'", "8");
    have_responder("resp_on='true', text='behind'", "9");
    EXPECT_EQ(run().exit_status, 1);
    EXPECT_EQ(panel::value("select group_concat(rn_id order by rn_id) from resp_freq"), "7,8");
}

} // namespace
