#include "autoresponder/panel_query.h"

#include "autoresponder/report.h"
#include "lib/db/shut_connection.h"

namespace {

[[noreturn]] void exit_failed(MYSQL* connection, const char* message) {
    report_and_exit(message, mysql_error(connection));
}

} // namespace

bool send_statement(MYSQL* connection, const std::string& statement) {
    if (mysql_real_query(connection, statement.data(), statement.size()) == 0)
        return true;
    shut_unless_refused(connection);
    return false;
}

MysqlResult store_query(MYSQL* connection, const std::string& query) {
    if (!send_statement(connection, query))
        return nullptr;
    MysqlResult result(mysql_store_result(connection));
    if (!result && mysql_field_count(connection) != 0) // else the statement has none to give
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
