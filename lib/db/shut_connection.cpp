#include "lib/db/shut_connection.h"

#include "lib/util/owners.h"

#include <errmsg.h>

namespace {

// The client library's own errors, as opposed to those of the server: errmsg.h.
bool is_of_client(unsigned error) {
    return (error >= CR_MIN_ERROR && error <= CR_MAX_ERROR) ||
           (error >= CER_MIN_ERROR && error <= CER_MAX_ERROR);
}

} // namespace

void shut_unless_refused(MYSQL* connection) {
    const ErrnoKeeper keeper;
    if (is_of_client(mysql_errno(connection)))
        mariadb_cancel(connection);
}
