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

// After a statement has failed, or the taking of its result: unless it was the server that refused,
// nobody knows how much of its answer is still to come, and a later statement would take that for
// its own. So the connection is shut, and all further statements on it fail at once. What
// mysql_errno() and mysql_error() say is unchanged.
void shut_unless_refused(MYSQL* connection);

using MysqlConnection = std::unique_ptr<MYSQL, CloseConnection>;
using MysqlResult = std::unique_ptr<MYSQL_RES, FreeResult>;
