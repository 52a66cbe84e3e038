#include "lib/db/shut_connection.h"

#include "lib/util/owners.h"

#include <errmsg.h>

namespace {

// Errors of the server lie outside of the client library's ranges: errmsg.h. Where memory runs out
// the library may fail and report no error at all.
bool is_refusal(unsigned error) {
    const bool of_client = (error >= CR_MIN_ERROR && error <= CR_MAX_ERROR) ||
                           (error >= CER_MIN_ERROR && error <= CER_MAX_ERROR);
    return error != 0 && !of_client;
}

} // namespace

void shut_unless_refused(MYSQL* connection) {
    const ErrnoKeeper keeper;
    if (!is_refusal(mysql_errno(connection)))
        mariadb_cancel(connection);
}
