// The limit on replies to one sender on one day: the statements and what they leave in resp_freq.

#include "autoresponder/frequency.h"

#include "autoresponder/mail_content.h"
#include "lib/db/quarx_db.h"
#include "support/panel.h"

namespace {

using testing::Eq;
using testing::ExitedWithCode;

constexpr char kForget[] =
    "delete from resp_freq where rn_id=7 and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0";
constexpr char kCount[] = "select COUNT(*) from resp_freq where rn_id=7";
constexpr char kFind[] = "select num from resp_freq where rn_id=7 and email='joe@example.org'";
constexpr char kOldest[] = "select MIN(time_resp) from resp_freq where rn_id=7";
constexpr char kInsert[] = "insert into resp_freq set rn_id=7, email='joe@example.org', num=1";

using Statements = std::vector<std::string>;

// For each connection it is one minute past midnight.
void set_clock(MYSQL* connection) {
    panel::run("set timestamp=unix_timestamp('2026-03-10 00:01:00')", connection);
}

class FrequencyTest : public PanelTest {
protected:
    void SetUp() override {
        PanelTest::SetUp();
        set_clock(nullptr);
        set_clock(connection());
    }

    // Asks for responder 7, and for joe unless the case says otherwise.
    int ask(const std::string& ans_freq = "10", const std::string& mem_limit = "1000") {
        Mail_content content;
        content.sender = sender;
        panel::forget_statements();
        return can_response_freq(connection(), &content, "7", ans_freq, mem_limit);
    }

    // "email num" of the responder's rows by time.
    static Statements remembered(const std::string& responder = "7") {
        Statements all;
        for (const panel::Row& row : panel::rows("select email, num from resp_freq where rn_id=" +
                                                 responder + " order by time_resp, id"))
            all.push_back(row[0].value_or("NULL") + " " + row[1].value_or("NULL"));
        return all;
    }

    static void remember(const std::string& email, const std::string& num,
                         const std::string& time = "now()", const std::string& responder = "7") {
        panel::run("insert into resp_freq set rn_id=" + responder + ", email='" + email +
                   "', num=" + num + ", time_resp=" + time);
    }

    std::string sender = "joe@example.org";
};

TEST_F(FrequencyTest, FirstMessageOfASenderIsAnsweredAndCounted) {
    EXPECT_EQ(ask(), 1);
    EXPECT_EQ(panel::statements(), (Statements{kForget, kCount, kFind, kInsert}));
    EXPECT_EQ(remembered(), Statements{"joe@example.org 1"});
}

TEST_F(FrequencyTest, LaterMessagesAreAnsweredUpToTheLimit) {
    EXPECT_EQ(ask("3"), 1);
    EXPECT_EQ(ask("3"), 1);
    EXPECT_EQ(remembered(), Statements{"joe@example.org 2"});
    EXPECT_EQ(ask("3"), 1);
    EXPECT_EQ(remembered(), Statements{"joe@example.org 3"});
    EXPECT_EQ(ask("3"), 0);
    EXPECT_EQ(ask("3"), 0);
    EXPECT_EQ(remembered(), Statements{"joe@example.org 3"});
}

TEST_F(FrequencyTest, LimitOfOneAnswersOnce) {
    EXPECT_EQ(ask("1"), 1);
    EXPECT_EQ(ask("1"), 0);
    EXPECT_EQ(panel::statements(), (Statements{kForget, kCount, kFind}));
    EXPECT_EQ(remembered(), Statements{"joe@example.org 1"});
}

TEST_F(FrequencyTest, CountIsRaisedFromTheTextThatWasRead) {
    remember("joe@example.org", "3");
    EXPECT_EQ(ask("5"), 1);
    EXPECT_EQ(panel::statements(), (Statements{kForget, kCount, kFind,
                                               "update resp_freq set num=3+1 where rn_id=7 and "
                                               "email='joe@example.org'"}));
    EXPECT_EQ(remembered(), Statements{"joe@example.org 4"});
}

TEST_F(FrequencyTest, NullCountIsReadAsZero) {
    remember("joe@example.org", "NULL");
    EXPECT_EQ(ask("1"), 1);
    EXPECT_EQ(panel::statements().back(),
              "update resp_freq set num=0+1 where rn_id=7 and email='joe@example.org'");
    EXPECT_EQ(remembered(), Statements{"joe@example.org 1"});
}

TEST_F(FrequencyTest, LimitWithoutAPositiveNumberAnswersNobody) {
    for (const char* limit : {"0", "-1", "", "many", " ", "0x10", "-"}) {
        EXPECT_EQ(ask(limit), 0) << "'" << limit << "'";
        EXPECT_EQ(panel::statements(), Statements{kForget}) << "'" << limit << "'";
    }
    EXPECT_EQ(remembered(), Statements{});
}

TEST_F(FrequencyTest, LimitIsReadUpToItsFirstNonDigit) {
    EXPECT_EQ(ask(" 2 replies"), 1);
    EXPECT_EQ(ask(" 2 replies"), 1);
    EXPECT_EQ(ask(" 2 replies"), 0);
}

TEST_F(FrequencyTest, EarlierDaysAreForgottenAlsoWhenNobodyIsAnswered) {
    remember("joe@example.org", "1", "now() - interval 1 day");
    EXPECT_EQ(ask("0"), 0);
    EXPECT_EQ(remembered(), Statements{});
}

TEST_F(FrequencyTest, DayChangesAtMidnightNotAfterADay) {
    remember("joe@example.org", "9", "'2026-03-09 23:59:59'");
    remember("ann@example.org", "1", "'2026-03-10 00:00:00'");
    EXPECT_EQ(ask("9"), 1);
    EXPECT_EQ(remembered(), (Statements{"ann@example.org 1", "joe@example.org 1"}));
    EXPECT_EQ(panel::value("select time_resp from resp_freq where email like 'joe%'"),
              "2026-03-10 00:01:00");
}

TEST_F(FrequencyTest, LaterDaysAreKept) {
    remember("joe@example.org", "1", "now() + interval 2 day");
    EXPECT_EQ(ask("1"), 0);
    EXPECT_EQ(remembered(), Statements{"joe@example.org 1"});
}

TEST_F(FrequencyTest, OtherRespondersKeepTheirCounts) {
    remember("joe@example.org", "1", "now() - interval 1 day", "8");
    remember("ann@example.org", "5", "now()", "8");
    remember("joe@example.org", "5", "now()", "8");
    EXPECT_EQ(ask("1", "1"), 1);
    EXPECT_EQ(remembered("8"),
              (Statements{"joe@example.org 1", "ann@example.org 5", "joe@example.org 5"}));
    EXPECT_EQ(remembered(), Statements{"joe@example.org 1"});
}

TEST_F(FrequencyTest, OldestSenderMakesRoom) {
    remember("old@example.org", "2", "now() - interval 2 second");
    remember("new@example.org", "1", "now() - interval 1 second");
    const std::string oldest = panel::value("select min(time_resp) from resp_freq");
    EXPECT_EQ(ask("10", "2"), 1);
    EXPECT_EQ(panel::statements(),
              (Statements{kForget, kCount, kFind, kOldest,
                          "delete from resp_freq where rn_id=7 and time_resp='" + oldest + "'",
                          kInsert}));
    EXPECT_EQ(remembered(), (Statements{"new@example.org 1", "joe@example.org 1"}));
}

TEST_F(FrequencyTest, AllSendersOfTheOldestTimeMakeRoom) {
    remember("a@example.org", "2", "now() - interval 2 second");
    remember("new@example.org", "1", "now() - interval 1 second");
    remember("b@example.org", "1", "now() - interval 2 second");
    EXPECT_EQ(ask("10", "3"), 1);
    EXPECT_EQ(remembered(), (Statements{"new@example.org 1", "joe@example.org 1"}));
}

TEST_F(FrequencyTest, NobodyMakesRoomBelowTheMemoryLimit) {
    remember("old@example.org", "2", "now() - interval 2 second");
    EXPECT_EQ(ask("10", "2"), 1);
    EXPECT_EQ(panel::statements(), (Statements{kForget, kCount, kFind, kInsert}));
    EXPECT_EQ(remembered(), (Statements{"old@example.org 2", "joe@example.org 1"}));
}

TEST_F(FrequencyTest, RememberedSenderNeedsNoRoom) {
    remember("old@example.org", "2", "now() - interval 2 second");
    remember("joe@example.org", "1", "now() - interval 1 second");
    EXPECT_EQ(ask("10", "1"), 1);
    EXPECT_EQ(remembered(), (Statements{"old@example.org 2", "joe@example.org 2"}));
}

TEST_F(FrequencyTest, MemoryLimitWithoutANumberForgetsAtEachFirstMessage) {
    for (const char* limit : {"0", "", "many", "-1"}) {
        panel::run("truncate table resp_freq");
        EXPECT_EQ(ask("10", limit), 1) << "'" << limit << "'";
        EXPECT_EQ(panel::statements(),
                  (Statements{kForget, kCount, kFind, kOldest,
                              "delete from resp_freq where rn_id=7 and time_resp='0'", kInsert}))
            << "'" << limit << "'";
        EXPECT_EQ(remembered(), Statements{"joe@example.org 1"}) << "'" << limit << "'";
    }
}

TEST_F(FrequencyTest, QuotesAndBackslashesInASenderAreEscaped) {
    sender = R"(o'br\ien"@example.org)";
    EXPECT_EQ(ask("2"), 1);
    EXPECT_EQ(panel::statements()[2],
              R"(select num from resp_freq where rn_id=7 and email='o\'br\\ien\"@example.org')");
    EXPECT_EQ(panel::statements()[3],
              R"(insert into resp_freq set rn_id=7, email='o\'br\\ien\"@example.org', num=1)");
    EXPECT_EQ(remembered(), Statements{sender + " 1"});
    EXPECT_EQ(ask("2"), 1);
    EXPECT_EQ(panel::statements()[3],
              R"(update resp_freq set num=1+1 where rn_id=7 and email='o\'br\\ien\"@example.org')");
    EXPECT_EQ(ask("2"), 0);
}

TEST_F(FrequencyTest, ResponderIdIsWrittenAsItStands) {
    Mail_content content;
    content.sender = sender;
    EXPECT_EQ(can_response_freq(connection(), &content, "7 or 1=0", "1", "5"), 1);
    EXPECT_EQ(panel::statements()[1], "select COUNT(*) from resp_freq where rn_id=7 or 1=0");
}

// A failed statement ends the run, with what ran before it done. The counts are those of a sender
// who comes back (joe, 1) and of one who makes room for joe (old).
struct Failure {
    const char* name;
    int statement;
    const char* known_sender;
    Statements left;
};

class FailedStatement : public FrequencyTest, public testing::WithParamInterface<Failure> {};

TEST_P(FailedStatement, EndsTheRunWithoutUndoingAnything) {
    remember("past@example.org", "1", "now() - interval 1 day");
    remember(GetParam().known_sender, "1");
    write_file(mail_file_name, "copy");
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            set_clock(own.get());
            Mail_content content;
            content.sender = sender;
            panel::refuse_statement(GetParam().statement);
            can_response_freq(own.get(), &content, "7", "5", "1");
        },
        ExitedWithCode(0),
        Eq(std::string("autoresponder: Unable to exec query :") + panel::kRefusal + "\n"));
    EXPECT_EQ(remembered(), GetParam().left);
    EXPECT_EQ(files_in("/tmp"), Statements{});
}

const Failure kFailures[] = {
    {"Forget", 1, "old@example.org", {"past@example.org 1", "old@example.org 1"}},
    {"Count", 2, "old@example.org", {"old@example.org 1"}},
    {"Find", 3, "old@example.org", {"old@example.org 1"}},
    {"Raise", 4, "joe@example.org", {"joe@example.org 1"}},
    {"Oldest", 4, "old@example.org", {"old@example.org 1"}},
    {"ForgetOldest", 5, "old@example.org", {"old@example.org 1"}},
    {"Insert", 6, "old@example.org", {}},
};

INSTANTIATE_TEST_SUITE_P(Frequency, FailedStatement, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure>& failure) {
                             return std::string(failure.param.name);
                         });

} // namespace
