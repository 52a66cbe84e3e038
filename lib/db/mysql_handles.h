// Owners of the database client's handles: each handle is released exactly once, on every path.
#pragma once

#include <memory>
#include <mysql.h>

struct MysqlClose {
    void operator()(MYSQL* connection) const { mysql_close(connection); }
};

struct MysqlFreeResult {
    void operator()(MYSQL_RES* result) const { mysql_free_result(result); }
};

using MysqlConnection = std::unique_ptr<MYSQL, MysqlClose>;
using MysqlResult = std::unique_ptr<MYSQL_RES, MysqlFreeResult>;
