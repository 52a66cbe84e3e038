#pragma once

// Statements to the panel database. One that fails ends the run, but for the notification's.

#include "lib/db/mysql_handles.h"

#include <mysql.h>
#include <string>

// Sends `statement` with its exact length. Returns false when the server refused it or could not be
// reached; mysql_error() then says why.
bool send_statement(MYSQL* connection, const std::string& statement);

// Sends `query` and stores its whole result. Null on failure, of the query or of storing, as above.
MysqlResult store_query(MYSQL* connection, const std::string& query);

// As above; a failure is reported as `message` directly followed by mysql_error(), and ends the run
// through correct_exit().
inline constexpr char kQueryFailed[] = "autoresponder: Unable to exec query :";
void send_or_exit(MYSQL* connection, const std::string& statement);
MysqlResult query_or_exit(MYSQL* connection, const std::string& query,
                          const char* message = kQueryFailed);

// A column's text up to its first NUL byte, `fallback` for SQL NULL.
std::string column_or(const char* value, const char* fallback);
