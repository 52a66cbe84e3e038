// Connecting, to the sandbox's database server and to servers that misbehave.

#include "lib/db/quarx_db.h"
#include "support/fake_server.h"
#include "support/isolated.h"
#include "support/panel_database.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using namespace std::string_literals;

constexpr const char* kNoFile = "Unable to open admin password file: No such file or directory";
constexpr const char* kNoServer =
    "Unable to connect to Quarx Database: Can't connect to local server through socket "
    "'/run/mysqld/mysqld.sock' (2)";

class QuarxDb : public testing::Test {
protected:
    void SetUp() override {
        panel::write_password_file(panel::kPassword + "\n");
        client_calls = {};
        errno = 0;
    }

    void TearDown() override { client_calls = {}; }

    // Connects with `connect_with` and keeps the error text, "(untouched)" where there is none.
    MysqlConnection connect(MYSQL* (*connect_with)(char*, size_t)) {
        char buffer[4097] = "(untouched)";
        MysqlConnection connection{connect_with(buffer, sizeof(buffer))};
        error_ = buffer;
        return connection;
    }

    std::string error_;
};

// Sets the server's password for a while.
class ServerPassword {
public:
    explicit ServerPassword(const std::string& password) : admin_{panel::connect()} {
        change(password);
    }
    ServerPassword(const ServerPassword&) = delete;
    ServerPassword& operator=(const ServerPassword&) = delete;
    ~ServerPassword() { change(panel::kPassword); }

private:
    void change(const std::string& password) {
        EXPECT_EQ(panel::run(admin_.get(), "SET PASSWORD = PASSWORD('" + password + "')"), "");
    }

    MysqlConnection admin_;
};

// --- What is connected to ---

TEST_F(QuarxDb, the_administrator_of_the_local_server) {
    const MysqlConnection connection = connect(quarx_db_connect_raw_ex);
    ASSERT_NE(connection, nullptr) << error_;
    EXPECT_EQ(client_calls.connect_arguments, "localhost|admin|sandbox-admin|qrx|0|(null)|0");
    EXPECT_EQ(panel::run(connection.get(), "select current_user(), database()"),
              "admin@localhost|qrx;");
}

TEST_F(QuarxDb, every_kind_of_connect_succeeds_without_a_text) {
    for (auto* const connect_with : {quarx_db_connect_raw_ex, quarx_db_connect_raw,
                                     quarx_db_connect_ex, quarx_db_connect, db_connect_nothrow}) {
        EXPECT_NE(connect(connect_with), nullptr);
        EXPECT_EQ(error_, "(untouched)");
    }
}

TEST_F(QuarxDb, a_raw_connect_sends_no_statement) {
    connect(quarx_db_connect_raw_ex);
    connect(quarx_db_connect_raw);
    EXPECT_TRUE(client_calls.statements.empty());
}

TEST_F(QuarxDb, the_other_connects_send_one_statement) {
    for (auto* const connect_with : {quarx_db_connect_ex, quarx_db_connect, db_connect_nothrow}) {
        client_calls.statements.clear();
        connect(connect_with);
        EXPECT_EQ(client_calls.statements, std::vector<std::string>{"SET NAMES utf8"});
    }
}

TEST_F(QuarxDb, the_connection_speaks_utf8) {
    const MysqlConnection connection = connect(quarx_db_connect);
    EXPECT_EQ(panel::run(connection.get(), "select @@character_set_client, "
                                           "@@character_set_results, @@character_set_connection"),
              "utf8mb3|utf8mb3|utf8mb3;");
}

TEST_F(QuarxDb, the_options_are_set_before_connecting) {
    connect(quarx_db_connect_raw_ex);
    const std::map<mysql_option, unsigned> wanted = {{MYSQL_OPT_CONNECT_TIMEOUT, 10},
                                                     {MYSQL_OPT_READ_TIMEOUT, 60},
                                                     {MYSQL_OPT_WRITE_TIMEOUT, 60},
                                                     {MYSQL_OPT_LOCAL_INFILE, 0}};
    EXPECT_EQ(client_calls.options, wanted);
}

TEST_F(QuarxDb, a_lost_connection_stays_lost) {
    const MysqlConnection connection = connect(quarx_db_connect);
    const std::string id = std::to_string(mysql_thread_id(connection.get()));
    EXPECT_EQ(panel::run(panel::connect().get(), "KILL " + id), "");
    EXPECT_NE(mysql_query(connection.get(), "select 1"), 0);
    EXPECT_NE(mysql_query(connection.get(), "select 1"), 0);
}

// --- The password file ---

TEST_F(QuarxDb, a_password_without_a_line_feed) {
    panel::write_password_file(panel::kPassword);
    EXPECT_NE(connect(quarx_db_connect), nullptr) << error_;
}

TEST_F(QuarxDb, only_the_first_line_counts) {
    panel::write_password_file(panel::kPassword + "\nsecond\n");
    EXPECT_NE(connect(quarx_db_connect), nullptr) << error_;
}

TEST_F(QuarxDb, only_a_line_feed_is_removed) {
    panel::write_password_file(panel::kPassword + " \r\n");
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_EQ(client_calls.connect_arguments, "localhost|admin|sandbox-admin \r|qrx|0|(null)|0");
}

TEST_F(QuarxDb, a_password_of_99_bytes_with_a_line_feed) {
    const ServerPassword password(std::string(99, 'p'));
    panel::write_password_file(std::string(99, 'p') + "\n");
    EXPECT_NE(connect(quarx_db_connect), nullptr) << error_;
}

TEST_F(QuarxDb, a_password_line_of_100_bytes_is_cut_to_99) {
    const ServerPassword password(std::string(99, 'p'));
    panel::write_password_file(std::string(99, 'p') + "X\n");
    EXPECT_NE(connect(quarx_db_connect), nullptr) << error_;
}

TEST_F(QuarxDb, an_empty_first_line_is_an_empty_password) {
    panel::write_password_file("\n" + panel::kPassword + "\n");
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_EQ(error_, "Unable to connect to Quarx Database: Access denied for user "
                      "'admin'@'localhost' (using password: NO)");
}

TEST_F(QuarxDb, a_password_line_that_begins_with_a_nul_byte_is_an_empty_password) {
    panel::write_password_file("\0secret\n"s);
    connect(quarx_db_connect);
    EXPECT_EQ(client_calls.connect_arguments, "localhost|admin||qrx|0|(null)|0");
}

TEST_F(QuarxDb, the_file_is_read_at_every_connect) {
    panel::write_password_file("wrong\n");
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    panel::write_password_file(panel::kPassword);
    EXPECT_NE(connect(quarx_db_connect), nullptr) << error_;
}

TEST_F(QuarxDb, the_file_is_closed_on_exec) {
    connect(quarx_db_connect_raw_ex);
    EXPECT_EQ(client_calls.inheritable_files, 0);
}

TEST_F(QuarxDb, the_password_is_wiped) {
    connect(quarx_db_connect_raw_ex);
    EXPECT_EQ(client_calls.wiped, std::vector<std::string>{panel::kPassword});
}

TEST_F(QuarxDb, the_password_is_wiped_after_a_failure) {
    client_calls.init_fails = true;
    connect(quarx_db_connect_raw_ex);
    EXPECT_EQ(client_calls.wiped, std::vector<std::string>{panel::kPassword});
}

// --- Failures, each with its text and without a handle left ---

class QuarxDbFailure : public QuarxDb {
protected:
    void expect_failure(const std::string& text) {
        for (auto* const connect_with :
             {quarx_db_connect_raw_ex, quarx_db_connect_raw, quarx_db_connect_ex, quarx_db_connect,
              db_connect_nothrow}) {
            errno = 0;
            EXPECT_EQ(connect(connect_with), nullptr);
            EXPECT_EQ(error_, text);
            EXPECT_EQ(client_calls.inits, client_calls.closes);
        }
    }
};

TEST_F(QuarxDbFailure, no_password_file) {
    std::filesystem::remove(panel::kPasswordPath);
    expect_failure(kNoFile);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(client_calls.inits, 0);
}

TEST_F(QuarxDbFailure, an_empty_password_file) {
    panel::write_password_file("");
    expect_failure("Unable to read admin password file: Success");
    EXPECT_EQ(client_calls.inits, 0);
}

TEST_F(QuarxDbFailure, a_directory_for_a_password_file) {
    std::filesystem::remove(panel::kPasswordPath);
    std::filesystem::create_directory(panel::kPasswordPath);
    expect_failure("Unable to read admin password file: Is a directory");
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(QuarxDbFailure, no_memory_for_the_client) {
    client_calls.init_fails = true;
    expect_failure("Unable to initialize MySQL connection structure: Cannot allocate memory");
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(QuarxDbFailure, little_memory_left_stops_it_before_the_client_is_asked) {
    client_calls.largest_block = 65536; // the client needs none of this size to connect
    expect_failure("Unable to initialize MySQL connection structure: Cannot allocate memory");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(client_calls.inits, 0);
}

TEST_F(QuarxDbFailure, a_wrong_password) {
    panel::write_password_file("wrong\n");
    expect_failure("Unable to connect to Quarx Database: Access denied for user "
                   "'admin'@'localhost' (using password: YES)");
    EXPECT_EQ(client_calls.inits, 5);
}

TEST_F(QuarxDbFailure, no_server) {
    const panel::ServerAway away;
    expect_failure(kNoServer);
    EXPECT_EQ(client_calls.inits, 5);
}

TEST_F(QuarxDbFailure, no_descriptor_is_left_open) {
    panel::write_password_file("wrong\n");
    const int before = dup(STDIN_FILENO);
    close(before);
    connect(quarx_db_connect);
    panel::write_password_file("");
    connect(quarx_db_connect);
    const int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(after, before);
}

// Fails to connect with room for 22 bytes, and what the buffer then holds up to the 25th.
std::string text_in_a_small_buffer() {
    char buffer[] = "0123456789012345678901234567890123456789";
    EXPECT_EQ(quarx_db_connect(buffer, 22), nullptr);
    return {buffer, 25};
}

TEST_F(QuarxDbFailure, each_text_is_cut_to_the_buffer) {
    client_calls.query_instead = "SET NAMES nonsense";
    EXPECT_EQ(text_in_a_small_buffer(), "DB error (set names q\0"s + "234");
    client_calls.init_fails = true;
    EXPECT_EQ(text_in_a_small_buffer(), "Unable to initialize \0"s + "234");
    client_calls.init_fails = false;
    panel::write_password_file("wrong\n");
    EXPECT_EQ(text_in_a_small_buffer(), "Unable to connect to \0"s + "234");
    panel::write_password_file("");
    EXPECT_EQ(text_in_a_small_buffer(), "Unable to read admin \0"s + "234");
    std::filesystem::remove(panel::kPasswordPath);
    EXPECT_EQ(text_in_a_small_buffer(), "Unable to open admin \0"s + "234");
}

TEST_F(QuarxDb, a_text_without_an_error_number_is_cut_to_the_buffer) {
    client_calls.query_fails_silently = true;
    char buffer[] = "0123456789012345678901234567890123456789";
    const MysqlConnection connection{quarx_db_connect_ex(buffer, 22)};
    EXPECT_EQ(std::string(buffer, 25), "DB error (set names q\0"s + "234");
}

TEST_F(QuarxDbFailure, a_buffer_of_no_size_is_left_alone) {
    std::filesystem::remove(panel::kPasswordPath);
    char buffer[] = "0123";
    EXPECT_EQ(quarx_db_connect(buffer, 0), nullptr);
    EXPECT_STREQ(buffer, "0123");
}

// --- A connection that reports an error ---

TEST_F(QuarxDb, a_raw_connection_is_not_judged) {
    client_calls.reported_error = 1;
    EXPECT_NE(connect(quarx_db_connect_raw_ex), nullptr);
}

TEST_F(QuarxDb, a_raw_connection_that_reports_an_error_is_closed) {
    client_calls.reported_error = 1;
    EXPECT_EQ(connect(quarx_db_connect_raw), nullptr);
    EXPECT_EQ(client_calls.inits, 1);
    EXPECT_EQ(client_calls.closes, 1);
}

TEST_F(QuarxDb, a_failed_set_names_is_told_and_the_connection_returned) {
    client_calls.query_instead = "SET NAMES nonsense";
    EXPECT_NE(connect(quarx_db_connect_ex), nullptr);
    EXPECT_EQ(error_, "DB error (set names query) 1115: Unknown character set: 'nonsense'");
}

TEST_F(QuarxDb, a_failed_set_names_closes_the_connection) {
    client_calls.query_instead = "SET NAMES nonsense";
    for (auto* const connect_with : {quarx_db_connect, db_connect_nothrow}) {
        EXPECT_EQ(connect(connect_with), nullptr);
        EXPECT_EQ(error_, "DB error (set names query) 1115: Unknown character set: 'nonsense'");
    }
    EXPECT_EQ(client_calls.inits, 2);
    EXPECT_EQ(client_calls.closes, 2);
}

// Without an error number there is nothing to judge by, so the connection is returned. What the
// server made of the statement nobody knows either, so no further one gets an answer.
TEST_F(QuarxDb, a_set_names_that_fails_without_an_error) {
    client_calls.query_fails_silently = true;
    EXPECT_NE(connect(quarx_db_connect_ex), nullptr);
    EXPECT_EQ(error_, "DB error (set names query): unknown error");
    const MysqlConnection connection = connect(quarx_db_connect);
    ASSERT_NE(connection, nullptr);
    client_calls.query_fails_silently = false;
    EXPECT_NE(mysql_query(connection.get(), "select 1"), 0);
}

// --- db_connect ---

TEST_F(QuarxDb, db_connect_is_silent_when_it_succeeds) {
    const isolated::Outcome outcome = isolated::run([] {
        const MysqlConnection connection{db_connect()};
        return panel::run(connection.get(), "select @@character_set_client");
    });
    EXPECT_OUTCOME(outcome, isolated::kReturned, "", "");
    EXPECT_EQ(outcome.result, "utf8mb3;");
}

TEST_F(QuarxDb, db_connect_writes_the_reason_and_goes_on) {
    std::filesystem::remove(panel::kPasswordPath);
    const isolated::Outcome outcome =
        isolated::run([] { return db_connect() == nullptr ? "null" : "connected"; });
    EXPECT_MESSAGE(outcome, isolated::kReturned,
                   "prog: "s + kNoFile + "\nSystem error 2: No such file or directory\n");
    EXPECT_EQ(outcome.result, "null");
}

TEST_F(QuarxDb, db_connect_writes_what_the_client_says) {
    const panel::ServerAway away;
    const isolated::Outcome outcome =
        isolated::run([] { return db_connect() == nullptr ? "null" : "connected"; });
    EXPECT_MESSAGE(outcome, isolated::kReturned,
                   "prog: "s + kNoServer + "\nSystem error 2: No such file or directory\n");
}

// --- Servers that misbehave ---

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The real time-outs are 10 seconds and a minute; here the client gets one second of the one that a
// case is about.
TEST_F(QuarxDb, a_server_that_accepts_and_says_nothing) {
    client_calls.connect_timeout = 1;
    const FakeServer server([](FakeServer& self) { self.wait_for_close(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_LT(seconds_since(start), 5);
    EXPECT_EQ(error_.rfind("Unable to connect to Quarx Database: Lost connection to server", 0), 0U)
        << error_;
}

TEST_F(QuarxDb, a_server_that_greets_and_says_nothing_more) {
    client_calls.connect_timeout = 1;
    const FakeServer server([](FakeServer& self) {
        self.greet();
        self.wait_for_close();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_LT(seconds_since(start), 5);
    EXPECT_EQ(error_.rfind("Unable to connect to Quarx Database: Lost connection to server", 0), 0U)
        << error_;
}

TEST_F(QuarxDb, a_server_that_falls_silent_after_the_handshake) {
    client_calls.read_timeout = 1;
    const FakeServer server([](FakeServer& self) {
        self.greet_and_welcome();
        self.wait_for_close();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_LT(seconds_since(start), 5);
    EXPECT_EQ(error_.rfind("DB error (set names query) 2013: Lost connection to server", 0), 0U)
        << error_;
}

TEST_F(QuarxDb, a_server_that_closes_at_once) {
    const FakeServer server([](FakeServer&) {});
    EXPECT_EQ(connect(quarx_db_connect), nullptr);
    EXPECT_EQ(error_.rfind("Unable to connect to Quarx Database: Lost connection to server", 0), 0U)
        << error_;
}

// Not even in answer to a statement for which the client would send a file by default.
TEST_F(QuarxDb, a_server_that_asks_for_a_file_gets_nothing) {
    std::string answer;
    {
        const FakeServer server([&answer](FakeServer& self) {
            self.greet_and_welcome();
            self.accept_statement();
            self.receive();
            self.send(1, "\xfb/etc/qrx/.qrx.shadow");
            answer = self.receive();
        });
        const MysqlConnection connection = connect(quarx_db_connect);
        ASSERT_NE(connection, nullptr) << error_;
        mysql_query(connection.get(),
                    "load data local infile '/etc/qrx/.qrx.shadow' into table misc");
    }
    EXPECT_TRUE(answer.empty() || answer == "(closed)") << "the client sent: " << answer;
}

} // namespace
