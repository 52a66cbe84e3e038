#pragma once

// The sandbox's panel database as a test sees it: its own connection, its password file, and a
// server that is away.

#include "client_calls.h"
#include "lib/db/mysql_handles.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace panel {

inline const std::string kPassword = "sandbox-admin";
inline const std::string kPasswordPath = "/etc/qrx/.qrx.shadow";
inline const std::string kSocket = "/run/mysqld/mysqld.sock";

inline void write_password_file(const std::string& content) {
    std::filesystem::remove_all(kPasswordPath);
    std::ofstream(kPasswordPath, std::ios::binary) << content;
}

inline MysqlConnection connect(const std::string& password = kPassword) {
    MysqlConnection connection{mysql_init(nullptr)};
    if (mysql_real_connect(connection.get(), "localhost", "admin", password.c_str(), "qrx", 0,
                           nullptr, 0) == nullptr)
        ADD_FAILURE() << "the test's own connection: " << mysql_error(connection.get());
    return connection;
}

// Runs a statement and gives its result as text: values separated by "|", rows ended by ";".
inline std::string run(MYSQL* connection, const std::string& statement) {
    if (mysql_real_query(connection, statement.data(), statement.size()) != 0)
        return std::string("error: ") + mysql_error(connection);
    const MysqlResult result{mysql_store_result(connection)};
    std::string text;
    while (MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr) {
        const unsigned long* const lengths = mysql_fetch_lengths(result.get());
        for (unsigned i = 0; i < mysql_num_fields(result.get()); ++i)
            text += (i > 0 ? "|" : "") + (row[i] ? std::string(row[i], lengths[i]) : "NULL");
        text += ";";
    }
    return text;
}

// The server's socket is out of sight as long as this lives.
class ServerAway {
public:
    ServerAway() { std::filesystem::rename(kSocket, kSocket + ".away"); }
    ServerAway(const ServerAway&) = delete;
    ServerAway& operator=(const ServerAway&) = delete;
    ~ServerAway() { std::filesystem::rename(kSocket + ".away", kSocket); }
};

} // namespace panel
