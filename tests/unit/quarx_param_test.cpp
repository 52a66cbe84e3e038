// Parameters: read, written and deleted in the sandbox's panel database.

#include "lib/db/quarx_db.h"
#include "lib/util/owners.h"
#include "support/fake_server.h"
#include "support/isolated.h"
#include "support/panel_database.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::string_literals;

constexpr const char* kNoFile = "prog: Unable to open admin password file: No such file or "
                                "directory\nSystem error 2: No such file or directory\n";
constexpr const char* kNoEntry = "System error 2: No such file or directory\n";

std::string shown(const char* value) {
    return value != nullptr ? "'"s + value + "'" : "null";
}

class QuarxParam : public testing::Test {
protected:
    void SetUp() override {
        panel::write_password_file(panel::kPassword + "\n");
        connection_ = panel::connect();
        sql("delete from misc");
        sql("delete from dom_param");
        sql("delete from Parameters");
        client_calls = {};
    }

    void TearDown() override { client_calls = {}; }

    MYSQL* conn() const { return connection_.get(); }

    std::string sql(const std::string& statement) {
        const std::string result = panel::run(conn(), statement);
        client_calls.statements.clear();
        return result;
    }

    // The statements that a call sent.
    static std::string sent() {
        std::string all;
        for (const std::string& statement : client_calls.statements)
            all += statement + ";";
        return all;
    }

    // What the body gives in a process of its own, with a connection of its own, and the message it
    // writes. Whether the client leaves EAGAIN in errno depends on how fast the server answers.
    static void expect_message(const std::string& message, const std::string& wanted,
                               const std::function<std::string(MYSQL*)>& body) {
        const isolated::Outcome outcome = isolated::run([&body] {
            const MysqlConnection connection = panel::connect();
            errno = 0;
            return body(connection.get());
        });
        const std::string again = "System error 11: Resource temporarily unavailable\n";
        const std::string text = "prog: " + message;
        EXPECT_EQ(outcome.exit_status, isolated::kReturned) << isolated::describe(outcome);
        EXPECT_TRUE(outcome.err == text + (text.ends_with('\n') ? "" : "\n") ||
                    outcome.err == text + "\n" + again)
            << "got: " << outcome.err << "wanted: " << text;
        EXPECT_EQ(outcome.err, outcome.out);
        EXPECT_EQ(outcome.result, wanted);
    }

    // The same with no connection to be had.
    static void expect_no_connection(const std::string& message, const std::string& wanted,
                                     const std::function<std::string()>& body) {
        std::filesystem::remove(panel::kPasswordPath);
        EXPECT_MESSAGE(isolated::run(body), isolated::kReturned, kNoFile + ("prog: " + message));
        EXPECT_EQ(isolated::run(body).result, wanted);
    }

    MysqlConnection connection_;
};

// --- Reading ---

TEST_F(QuarxParam, a_parameter) {
    sql("insert into misc values('version', '8.6')");
    EXPECT_EQ(shown(get_param("version", conn())), "'8.6'");
    EXPECT_EQ(sent(), "select val from misc where param='version';");
}

TEST_F(QuarxParam, a_parameter_that_does_not_exist_is_empty) {
    EXPECT_EQ(shown(get_param("nonexistent", conn())), "''");
}

TEST_F(QuarxParam, a_parameter_that_is_null_is_empty) {
    sql("insert into misc values('nothing', NULL)");
    EXPECT_EQ(shown(get_param("nothing", conn())), "''");
}

TEST_F(QuarxParam, a_value_of_4095_bytes_comes_back_whole) {
    sql("insert into misc values('long', '" + std::string(4094, 'v') + "e')");
    EXPECT_EQ(shown(get_param("long", conn())), "'" + std::string(4094, 'v') + "e'");
}

TEST_F(QuarxParam, a_value_of_4096_bytes_comes_back_cut) {
    sql("insert into misc values('long', '" + std::string(4095, 'v') + "e')");
    EXPECT_EQ(shown(get_param("long", conn())), "'" + std::string(4095, 'v') + "'");
}

TEST_F(QuarxParam, a_value_of_5000_bytes_comes_back_cut_to_4095) {
    sql("insert into misc values('long', '" + std::string(5000, 'v') + "')");
    EXPECT_EQ(shown(get_param("long", conn())), "'" + std::string(4095, 'v') + "'");
}

TEST_F(QuarxParam, a_value_ends_at_its_first_nul_byte) {
    sql("insert into misc values('cut', 'a\\0b')");
    EXPECT_EQ(shown(get_param("cut", conn())), "'a'");
}

TEST_F(QuarxParam, a_value_in_utf8) {
    const MysqlConnection own{db_connect()};
    sql("set names utf8");
    sql("insert into misc values('name', 'J\xc3\xb8rgen')");
    EXPECT_EQ(shown(get_param("name", own.get())), "'J\xc3\xb8rgen'");
}

TEST_F(QuarxParam, one_buffer_serves_all_calls) {
    sql("insert into misc values('long', '" + std::string(5000, 'v') + "')");
    sql("insert into misc values('short', 's')");
    const char* const first = get_param("long", conn());
    const char* const second = get_param("short", conn());
    EXPECT_EQ(first, second);
    EXPECT_EQ(shown(second), "'s'");
    EXPECT_EQ(shown(get_param("nonexistent", conn())), "''");
}

TEST_F(QuarxParam, the_first_row_counts) {
    EXPECT_EQ(shown(get_param_query("select 'a' union all select 'b'", conn())), "'a'");
}

TEST_F(QuarxParam, a_column_is_chosen) {
    EXPECT_EQ(shown(get_param_from_bigquery("select 'a', 'b', NULL", conn(), 1)), "'b'");
    EXPECT_EQ(shown(get_param_from_bigquery("select 'a', 'b', NULL", conn(), 2)), "''");
    EXPECT_EQ(shown(get_param_query("select 'a', 'b', NULL", conn())), "'a'");
}

TEST_F(QuarxParam, a_column_that_the_result_lacks_is_empty) {
    EXPECT_EQ(shown(get_param_from_bigquery("select 'a', 'b'", conn(), 2)), "''");
    EXPECT_EQ(shown(get_param_from_bigquery("select 'a', 'b'", conn(), -1)), "''");
}

TEST_F(QuarxParam, a_statement_without_rows_is_empty) {
    EXPECT_EQ(shown(get_param_query("select 'a', 'b'", conn())), "'a'");
    EXPECT_EQ(shown(get_param_query("set @a = 1", conn())), "''");
}

TEST_F(QuarxParam, a_simple_query_has_its_four_parts) {
    sql("insert into Parameters values(7, 'color', 'red')");
    EXPECT_EQ(shown(get_param_simple("7", "Parameters", "id", "value", conn())), "'red'");
    EXPECT_EQ(sent(), "select value from Parameters where id='7';");
}

TEST_F(QuarxParam, a_simple_query_escapes_nothing) {
    sql("insert into misc values('O\\'Brien', 'found')");
    EXPECT_EQ(shown(get_param("O\\'Brien", conn())), "'found'");
    EXPECT_EQ(sent(), "select val from misc where param='O\\'Brien';");
}

// "select val from misc where param=''" is 35 bytes.
TEST_F(QuarxParam, a_simple_query_of_4095_bytes_is_sent_whole) {
    EXPECT_EQ(shown(get_param(std::string(4060, 'p').c_str(), conn())), "''");
    EXPECT_EQ(sent(), "select val from misc where param='" + std::string(4060, 'p') + "';");
}

TEST_F(QuarxParam, a_simple_query_of_4096_bytes_is_cut_and_fails) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(shown(get_param(std::string(4061, 'p').c_str(), conn())), "null");
    EXPECT_EQ(sent(), "select val from misc where param='" + std::string(4061, 'p') + ";");
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_NE(message.find("You have an error in your SQL syntax"), std::string::npos) << message;
    testing::internal::GetCapturedStdout();
}

TEST_F(QuarxParam, a_failed_query_is_null_and_told) {
    expect_message("Unable to query parameter by query select nonsense: Unknown column "
                   "'nonsense' in 'SELECT'\n",
                   "null",
                   [](MYSQL* own) { return shown(get_param_query("select nonsense", own)); });
}

TEST_F(QuarxParam, a_result_that_breaks_off_is_null_and_told) {
    const FakeServer server([](FakeServer& self) {
        self.greet_and_welcome();
        self.receive();
        self.send(1, "\x01");
        self.send(2, "\x03"
                     "def\0\0\0\x01v\0\x0c\x08\0\xff\0\0\0\xfd\0\0\0\0\0"s);
        self.send(3, FakeServer::kEnd);
    });
    expect_message(
        "Unable to query parameter by query select v: Lost connection to server during query\n",
        "null", [](MYSQL* own) { return shown(get_param_query("select v", own)); });
}

// --- The connection, of the caller or of the call ---

TEST_F(QuarxParam, an_answer_that_was_not_read_is_no_later_parameters) {
    put_param("colour", "blue", conn());
    const isolated::Outcome outcome = isolated::run([] {
        const MysqlConnection own = panel::connect();
        mysql_query(own.get(), "select 'unread'");
        const std::string first = shown(get_param("colour", own.get())); // out of sync
        mysql_free_result(mysql_use_result(own.get()));
        return first + ", " + shown(get_param("colour", own.get()));
    });
    EXPECT_EQ(outcome.result, "null, null") << isolated::describe(outcome);
}

TEST_F(QuarxParam, a_refused_query_leaves_the_connection_usable) {
    put_param("colour", "blue", conn());
    const isolated::Outcome outcome = isolated::run([] {
        const MysqlConnection own = panel::connect();
        const std::string first = shown(get_param_query("select 1 from nowhere", own.get()));
        return first + ", " + shown(get_param("colour", own.get()));
    });
    EXPECT_EQ(outcome.result, "null, 'blue'") << isolated::describe(outcome);
}

TEST_F(QuarxParam, a_given_connection_is_left_open) {
    sql("insert into misc values('version', '8.6')");
    get_param("version", conn());
    put_param("new", "value", conn());
    put_param("new", nullptr, conn());
    del_param("new", conn());
    del_dom_param("1", "new", conn());
    del_Parameter("1", "new", "value", conn());
    EXPECT_EQ(client_calls.closes, 0);
    EXPECT_EQ(client_calls.inits, 0);
    EXPECT_EQ(shown(get_param("version", conn())), "'8.6'");
}

TEST_F(QuarxParam, an_own_connection_is_opened_and_closed) {
    sql("insert into misc values('version', '8.6')");
    EXPECT_EQ(shown(get_param("version", nullptr)), "'8.6'");
    EXPECT_EQ(put_param("new", "value", nullptr), 0);
    EXPECT_EQ(del_param("new", nullptr), 0);
    EXPECT_EQ(del_dom_param("1", "new", nullptr), 0);
    EXPECT_EQ(del_Parameter("1", "new", "value", nullptr), 0);
    EXPECT_EQ(client_calls.inits, 5);
    EXPECT_EQ(client_calls.closes, 5);
}

TEST_F(QuarxParam, an_own_connection_is_closed_after_a_failure) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_param_query("nonsense", nullptr), nullptr);
    EXPECT_EQ(put_param("'", "value", nullptr), -1);
    EXPECT_EQ(del_param("'", nullptr), -1);
    EXPECT_EQ(client_calls.inits, 3);
    EXPECT_EQ(client_calls.closes, 3);
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
}

TEST_F(QuarxParam, no_connection_to_read_with) {
    expect_no_connection("Unable to connect to the mysql database\n\n"s + kNoEntry, "null",
                         [] { return shown(get_param("version", nullptr)); });
}

TEST_F(QuarxParam, no_connection_to_put_with) {
    expect_no_connection("Unable to connect to mysql database\n"s + kNoEntry, "-1",
                         [] { return std::to_string(put_param("a", "b", nullptr)); });
}

TEST_F(QuarxParam, no_connection_to_delete_with) {
    const std::string message = "Unable to connect to mysql database\n\n"s + kNoEntry;
    expect_no_connection(message, "-1", [] { return std::to_string(del_param("a", nullptr)); });
    expect_no_connection(message, "-1",
                         [] { return std::to_string(del_dom_param("1", "a", nullptr)); });
    expect_no_connection(message, "-1",
                         [] { return std::to_string(del_Parameter("1", "a", "b", nullptr)); });
}

// --- Escaping ---

TEST_F(QuarxParam, null_escapes_to_null) {
    EXPECT_EQ(escape_mysql_param(conn(), nullptr), nullptr);
}

TEST_F(QuarxParam, a_quote_is_escaped) {
    EXPECT_STREQ(OwnedText(escape_mysql_param(conn(), "O'Brien")).get(), "O\\'Brien");
}

TEST_F(QuarxParam, a_quote_is_doubled_where_the_server_knows_no_backslashes) {
    const MysqlConnection own{db_connect()};
    ASSERT_EQ(mysql_query(own.get(), "set sql_mode='NO_BACKSLASH_ESCAPES'"), 0);
    EXPECT_STREQ(OwnedText(escape_mysql_param(own.get(), "O'Bri\\en")).get(), "O''Bri\\en");
}

TEST_F(QuarxParam, every_special_byte_is_escaped) {
    EXPECT_STREQ(OwnedText(escape_mysql_param(conn(), "\n\r\\'\"\x1a")).get(),
                 "\\n\\r\\\\\\'\\\"\\Z");
}

TEST_F(QuarxParam, an_empty_text_escapes_to_an_empty_text) {
    EXPECT_STREQ(OwnedText(escape_mysql_param(conn(), "")).get(), "");
}

TEST_F(QuarxParam, a_text_whose_every_byte_is_escaped_doubles) {
    const std::string quotes(1'000'000, '\'');
    const OwnedText escaped{escape_mysql_param(conn(), quotes.c_str())};
    EXPECT_EQ(std::string(escaped.get()).size(), 2'000'000U);
}

TEST_F(QuarxParam, utf8_is_left_as_it_is) {
    const MysqlConnection own{db_connect()};
    EXPECT_STREQ(OwnedText(escape_mysql_param(own.get(), "J\xc3\xb8rgen")).get(), "J\xc3\xb8rgen");
}

// --- Putting ---

TEST_F(QuarxParam, a_new_parameter_is_put) {
    EXPECT_EQ(put_param("color", "red", conn()), 0);
    EXPECT_EQ(sent(), "replace into misc (param, val) values('color', 'red');");
    EXPECT_EQ(sql("select * from misc"), "color|red;");
}

TEST_F(QuarxParam, a_known_parameter_is_replaced) {
    sql("insert into misc values('color', 'red'), ('other', 'kept')");
    EXPECT_EQ(put_param("color", "blue", conn()), 0);
    EXPECT_EQ(sql("select * from misc order by param"), "color|blue;other|kept;");
}

TEST_F(QuarxParam, a_put_value_is_escaped) {
    EXPECT_EQ(put_param("name", "O'Br\\ien\n", conn()), 0);
    EXPECT_EQ(sent(), "replace into misc (param, val) values('name', 'O\\'Br\\\\ien\\n');");
    EXPECT_EQ(sql("select val from misc"), "O'Br\\ien\n;");
}

TEST_F(QuarxParam, a_put_name_stands_as_it_is) {
    EXPECT_EQ(put_param("a\\'b", "v", conn()), 0);
    EXPECT_EQ(sql("select param from misc"), "a'b;");
}

TEST_F(QuarxParam, a_null_value_puts_the_columns_default) {
    sql("insert into misc values('color', 'red')");
    EXPECT_EQ(put_param("color", nullptr, conn()), 0);
    EXPECT_EQ(sent(), "replace into misc (param) values('color');");
    EXPECT_EQ(sql("select * from misc"), "color|NULL;");
}

TEST_F(QuarxParam, an_empty_value_is_no_null) {
    EXPECT_EQ(put_param("color", "", conn()), 0);
    EXPECT_EQ(sql("select * from misc"), "color|;");
}

TEST_F(QuarxParam, a_value_far_above_4096_bytes_is_put_whole) {
    const std::string value = std::string(1'000'000, '\'') + "end";
    EXPECT_EQ(put_param("long", value.c_str(), conn()), 0);
    EXPECT_EQ(sql("select length(val), right(val, 4) from misc"), "1000003|'end;");
}

// --- Deleting ---

TEST_F(QuarxParam, a_parameter_is_deleted) {
    sql("insert into misc values('color', 'red'), ('other', 'kept')");
    EXPECT_EQ(del_param("color", conn()), 0);
    EXPECT_EQ(sent(), "delete from misc where param='color';");
    EXPECT_EQ(sql("select * from misc"), "other|kept;");
}

TEST_F(QuarxParam, a_domains_parameter_is_deleted) {
    sql("insert into dom_param values(1, 'a', 'x'), (1, 'b', 'x'), (2, 'a', 'x')");
    EXPECT_EQ(del_dom_param("1", "a", conn()), 0);
    EXPECT_EQ(sent(), "delete from dom_param where dom_id='1' and param='a';");
    EXPECT_EQ(sql("select * from dom_param order by dom_id"), "1|b|x;2|a|x;");
}

TEST_F(QuarxParam, a_value_of_a_parameter_is_deleted) {
    sql("insert into Parameters values(1, 'a', 'it\\'s'), (1, 'a', 'y'), (2, 'a', 'it\\'s')");
    EXPECT_EQ(del_Parameter("1", "a", "it's", conn()), 0);
    EXPECT_EQ(sent(), "delete from Parameters where id='1' and parameter='a' and "
                      "value='it\\'s';");
    EXPECT_EQ(sql("select * from Parameters order by id"), "1|a|y;2|a|it's;");
}

TEST_F(QuarxParam, every_value_of_a_parameter_is_deleted) {
    sql("insert into Parameters values(1, 'a', 'x'), (1, 'a', NULL), (1, 'b', 'x'), (2, 'a', 'x')");
    EXPECT_EQ(del_Parameter("1", "a", nullptr, conn()), 0);
    EXPECT_EQ(sent(), "delete from Parameters where id='1' and parameter='a';");
    EXPECT_EQ(sql("select * from Parameters order by id"), "1|b|x;2|a|x;");
}

TEST_F(QuarxParam, deleting_what_is_not_there_succeeds) {
    EXPECT_EQ(del_param("a", conn()), 0);
    EXPECT_EQ(del_dom_param("1", "a", conn()), 0);
    EXPECT_EQ(del_Parameter("1", "a", "v", conn()), 0);
}

TEST_F(QuarxParam, names_far_above_4096_bytes_are_sent_whole) {
    const std::string name(10'000, 'n');
    EXPECT_EQ(del_dom_param("1", name.c_str(), conn()), 0);
    EXPECT_EQ(sent(), "delete from dom_param where dom_id='1' and param='" + name + "';");
}

// --- Failures ---

// Takes a table away for a while.
class TableAway {
public:
    TableAway(MYSQL* connection, const std::string& table)
        : connection_{connection}, table_{table} {
        EXPECT_EQ(panel::run(connection_, "rename table " + table_ + " to away"), "");
    }
    TableAway(const TableAway&) = delete;
    TableAway& operator=(const TableAway&) = delete;
    ~TableAway() { EXPECT_EQ(panel::run(connection_, "rename table away to " + table_), ""); }

private:
    MYSQL* connection_;
    std::string table_;
};

TEST_F(QuarxParam, a_failed_put_is_told) {
    const TableAway away{conn(), "misc"};
    expect_message("Unable to put parameter color into misc: Table 'qrx.misc' doesn't exist", "-1",
                   [](MYSQL* own) { return std::to_string(put_param("color", "v", own)); });
}

TEST_F(QuarxParam, a_failed_deletion_is_told) {
    const TableAway away{conn(), "misc"};
    expect_message("Unable to delete parameter color from misc: Table 'qrx.misc' doesn't exist",
                   "-1", [](MYSQL* own) { return std::to_string(del_param("color", own)); });
}

TEST_F(QuarxParam, a_failed_deletion_of_a_domains_parameter_is_told) {
    const TableAway away{conn(), "dom_param"};
    expect_message(
        "Unable to delete parameter color from dom_param: Table 'qrx.dom_param' doesn't exist",
        "-1", [](MYSQL* own) { return std::to_string(del_dom_param("1", "color", own)); });
}

TEST_F(QuarxParam, a_failed_deletion_of_a_value_is_told) {
    const TableAway away{conn(), "Parameters"};
    expect_message(
        "Unable to delete parameter color from Parameters: Table 'qrx.Parameters' doesn't exist",
        "-1", [](MYSQL* own) { return std::to_string(del_Parameter("1", "color", "v", own)); });
}

} // namespace
