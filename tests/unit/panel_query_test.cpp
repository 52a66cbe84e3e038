// Statements to the panel database, and the end of the run that a failed one is.

#include "autoresponder/panel_query.h"

#include "autoresponder/mail_content.h"
#include "lib/db/quarx_db.h"
#include "support/panel.h"

namespace {

using namespace std::string_literals;
using testing::Eq;
using testing::ExitedWithCode;

class PanelQuery : public PanelTest {};

TEST_F(PanelQuery, StatementIsSentWithItsWholeLength) {
    EXPECT_TRUE(send_statement(connection(), "insert into misc values ('a\0b', 'c\0')"s));
    EXPECT_EQ(panel::value("select param from misc"), "a\0b"s);
    EXPECT_EQ(panel::value("select val from misc"), "c\0"s);
}

TEST_F(PanelQuery, RefusedStatementIsFalse) {
    EXPECT_FALSE(send_statement(connection(), "select 1 from refused"));
    EXPECT_STREQ(mysql_error(connection()), panel::kRefusal);
}

TEST_F(PanelQuery, ResultIsStoredWhole) {
    const MysqlResult result = store_query(connection(), "select 1 union select 2");
    ASSERT_TRUE(result);
    EXPECT_EQ(mysql_num_rows(result.get()), 2U);
    EXPECT_TRUE(send_statement(connection(), "do 1")) << "the connection is free again";
}

TEST_F(PanelQuery, EmptyResultIsAResult) {
    EXPECT_TRUE(store_query(connection(), "select * from misc"));
}

TEST_F(PanelQuery, RefusedQueryIsNull) {
    EXPECT_FALSE(store_query(connection(), "select 1 from refused"));
    EXPECT_STREQ(mysql_error(connection()), panel::kRefusal);
}

TEST_F(PanelQuery, StatementWithoutAResultIsNull) {
    EXPECT_FALSE(store_query(connection(), "do 1"));
}

TEST_F(PanelQuery, RefusedStatementLeavesTheConnectionUsable) {
    EXPECT_FALSE(send_statement(connection(), "select 1 from refused"));
    EXPECT_TRUE(store_query(connection(), "select 1"));
}

TEST_F(PanelQuery, StatementWithoutAResultLeavesTheConnectionUsable) {
    EXPECT_TRUE(store_query(connection(), "select 1"));
    EXPECT_FALSE(store_query(connection(), "do 1"));
    EXPECT_TRUE(store_query(connection(), "select 1"));
}

TEST_F(PanelQuery, AnswerThatIsNotTakenWholeIsNeverThatOfALaterStatement) {
    const MysqlConnection own(db_connect());
    ASSERT_EQ(mysql_query(own.get(), "select 1 union select 2"), 0);
    EXPECT_FALSE(send_statement(own.get(), "do 1")) << "commands out of sync";
    {
        const MysqlResult left(mysql_use_result(own.get()));
        mysql_fetch_row(left.get());
    }
    EXPECT_FALSE(store_query(own.get(), "select 3")) << "the connection is shut";
}

TEST_F(PanelQuery, FailureEndsTheRunWithItsMessage) {
    write_file(mail_file_name, "message");
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            send_or_exit(own.get(), "select 1 from refused");
        },
        ExitedWithCode(0), Eq("autoresponder: Unable to exec query :"s + panel::kRefusal + "\n"));
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{});
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            query_or_exit(own.get(), "select 1 from refused");
        },
        ExitedWithCode(0), Eq("autoresponder: Unable to exec query :"s + panel::kRefusal + "\n"));
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            query_or_exit(own.get(), "select 1 from refused", "Unable: ");
        },
        ExitedWithCode(0), Eq("Unable: "s + panel::kRefusal + "\n"));
}

TEST(ColumnOr, IsTheTextOrTheFallbackForNull) {
    EXPECT_EQ(column_or("text", "fallback"), "text");
    EXPECT_EQ(column_or("", "fallback"), "");
    EXPECT_EQ(column_or(nullptr, "fallback"), "fallback");
    EXPECT_EQ(column_or("a\0b", "fallback"), "a");
}

} // namespace
