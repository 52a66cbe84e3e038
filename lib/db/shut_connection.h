// What becomes of a connection on which a statement has failed.
#pragma once

#include <mysql.h>

// After a statement has failed, or the taking of its result: unless it was the server that refused,
// nobody knows how much of its answer is still to come, and a later statement would take that for
// its own. So the connection is shut, and all further statements on it fail at once. What
// mysql_errno() and mysql_error() say is unchanged.
void shut_unless_refused(MYSQL* connection);
