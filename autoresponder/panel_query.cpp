#include "autoresponder/panel_query.h"

#include "autoresponder/report.h"
#include "lib/db/shut_connection.h"

#include <mysqld_error.h>
#include <unistd.h>

namespace {

// How often a statement is sent at most.
constexpr int kMostAttempts = 10;

// Lets the others finish, each process for another time, and longer from one attempt to the next:
// milliseconds. Not rand(3), whose numbers are those of the boundaries.
void make_way(int attempt) {
    constexpr int kDifferentTimes = 16;
    usleep(static_cast<useconds_t>(1000 * attempt * (1 + getpid() % kDifferentTimes)));
}

[[noreturn]] void exit_failed(MYSQL* connection, const char* message) {
    report_and_exit(message, mysql_error(connection));
}

} // namespace

bool send_statement(MYSQL* connection, const std::string& statement) {
    for (int attempt = 1;; ++attempt) {
        if (mysql_real_query(connection, statement.data(), statement.size()) == 0)
            return true;
        if (mysql_errno(connection) != ER_LOCK_DEADLOCK || attempt == kMostAttempts)
            break;
        make_way(attempt);
    }
    shut_unless_refused(connection);
    return false;
}

MysqlResult store_query(MYSQL* connection, const std::string& query) {
    if (!send_statement(connection, query))
        return nullptr;
    MysqlResult result(mysql_store_result(connection));
    if (!result && mysql_errno(connection) != 0) // else the statement has none to give
        shut_unless_refused(connection);
    return result;
}

void send_or_exit(MYSQL* connection, const std::string& statement) {
    if (!send_statement(connection, statement))
        exit_failed(connection, kQueryFailed);
}

MysqlResult query_or_exit(MYSQL* connection, const std::string& query, const char* message) {
    MysqlResult result = store_query(connection, query);
    if (!result)
        exit_failed(connection, message);
    return result;
}

std::string column_or(const char* value, const char* fallback) {
    return value != nullptr ? value : fallback;
}
