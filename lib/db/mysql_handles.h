// Owners of the database client's handles: each is released exactly once, on every path, and its
// release leaves `errno` alone.
#pragma once

#include "lib/util/owners.h"

#include <memory>
#include <mysql.h>

struct CloseConnection {
    void operator()(MYSQL* connection) const {
        const ErrnoKeeper keeper;
        mysql_close(connection);
    }
};

struct FreeResult {
    void operator()(MYSQL_RES* result) const {
        const ErrnoKeeper keeper;
        mysql_free_result(result);
    }
};

using MysqlConnection = std::unique_ptr<MYSQL, CloseConnection>;
using MysqlResult = std::unique_ptr<MYSQL_RES, FreeResult>;
