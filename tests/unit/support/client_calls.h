#pragma once

// The calls that lib/db makes of the database client and of the C library: recorded on their way,
// and changed where a case asks for it. A program that uses this links its calls here by
// qrx_wrap_client_calls (ld(1), --wrap).

#include <cstddef>
#include <cstdint>
#include <map>
#include <mysql.h>
#include <string>
#include <vector>

struct ClientCalls {
    // Recorded.
    int inits = 0;
    int closes = 0;
    std::vector<std::string> statements;
    std::string connect_arguments;            // host|user|password|database|port|socket|flags
    std::map<mysql_option, unsigned> options; // as the caller sets them
    std::vector<std::string> wiped;           // the texts that were wiped, up to their first NUL
    int inheritable_files = 0;                // opened without close-on-exec

    // Asked for.
    bool init_fails = false;
    size_t largest_block = SIZE_MAX;   // bytes; malloc gives none larger
    unsigned reported_error = 0;       // mysql_errno gives it, when not 0
    bool query_fails_silently = false; // mysql_query fails without an error
    std::string query_instead;         // mysql_query sends it
    unsigned connect_timeout = 0;      // seconds, in place of the caller's
    unsigned read_timeout = 0;
};

extern ClientCalls client_calls;
