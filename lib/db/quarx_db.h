// The panel's database: the administrator's connection, single parameters, and their writers.
//
// The server is the local one, reached by its Unix socket, as user "admin", database "qrx", with
// the first line of /etc/qrx/.qrx.shadow (at most 99 bytes) as the password, which is read at every
// connect. The client never connects again by itself and refuses a server that asks for a file.
// A server that accepts and stays silent holds a connect, the log-in included, for 10 seconds, and
// a statement for 60 (MYSQL_OPT_CONNECT_TIMEOUT, MYSQL_OPT_READ_TIMEOUT and MYSQL_OPT_WRITE_TIMEOUT
// in mysql_optionsv(3); this client doesn't repeat a read that timed out). The connection is lost
// with it and every later statement fails at once, so a process waits 70 seconds for it at most, in
// all. A statement that was given up may still be carried out when the server goes on. A server
// that sends a byte now and then is waited for longer; it is the panel's own, and trusted that far.
//
// A statement that fails for another reason than the server's refusal, such as exhausted memory,
// leaves a connection on which all later ones fail: what is left of its answer must not be taken
// for theirs.
//
// Nothing here throws. Only exhausted memory ends the process (status 1, by `messlog2`).
#pragma once

#include <cstddef>
#include <mysql.h>

// Starts the client library, once a process, which then ignores SIGPIPE. Connecting does so too
// where it hasn't been done; it is for a program that escapes text (`mysql_escape_string`) before.
void quarx_db_start_client();

// --- Connecting ---
//
// Each returns a connection, which the caller closes with `mysql_close`, or null with the reason as
// a NUL-terminated text in `errbuf`, cut to its `size` bytes. `errno` is then what the failing step
// left: of the password file, or ENOMEM where the client had no memory; when it is the connection
// that failed, the text tells more. After a success `errbuf` is unchanged, except by
// `quarx_db_connect_ex`.

// Connects. The connection is not judged further.
MYSQL* quarx_db_connect_raw_ex(char* errbuf, size_t size);

// Connects; a connection that reports an error (`mysql_errno`) is closed, and null returned.
MYSQL* quarx_db_connect_raw(char* errbuf, size_t size);

// Connects and switches the connection to UTF-8. When only the switch fails, the connection is
// returned all the same, with the reason in `errbuf`.
MYSQL* quarx_db_connect_ex(char* errbuf, size_t size);

// The same, but a connection that reports an error is closed, and null returned.
MYSQL* quarx_db_connect(char* errbuf, size_t size);

// `quarx_db_connect` under the name that says what it is to C++ callers.
MYSQL* db_connect_nothrow(char* errbuf, size_t size);

// `quarx_db_connect`; the reason of a failure is written with `messlog2`.
MYSQL* db_connect();

// --- Reading parameters ---
//
// With a null `conn` each function below opens a connection of its own and closes it before it
// returns; a given one is left open. Names, tables and key values go into the statement as they
// stand: what comes from outside is escaped by the caller.
//
// The readers return the first row's value, cut to 4095 bytes and at its first NUL byte, in one
// static buffer that the next call overwrites. No row, SQL NULL, or a column that the result hasn't
// got give "". Null is returned, after a message by `messlog2`, when there is no connection, the
// query fails, or its result can't be fetched.

const char* get_param_from_bigquery(const char* query, MYSQL* conn, int column); // column from 0
const char* get_param_query(const char* query, MYSQL* conn);                     // column 0

// The `column` of the row of `table` whose `keyColumn` is `value`. A query of more than 4095 bytes
// is cut and so fails, for want of its last quote.
const char* get_param_simple(const char* value, const char* table, const char* keyColumn,
                             const char* column, MYSQL* conn);

// The value of the panel parameter `name`, from the table "misc".
const char* get_param(const char* name, MYSQL* conn);

// The text escaped for a string literal in a statement on `conn` (here never null): a new string
// that the caller frees. Null for null.
char* escape_mysql_param(MYSQL* conn, const char* text);

// --- Writing and deleting parameters ---
//
// Each returns 0, or -1 after a message by `messlog2`. `value` is escaped here, the other arguments
// go into the statement as they stand. To delete what isn't there is a success.

// Sets the panel parameter `name`; a null value leaves the column's default.
int put_param(const char* name, const char* value, MYSQL* conn);

// Delete the panel parameter `name`, and the parameter `name` of a domain.
int del_param(const char* name, MYSQL* conn);
int del_dom_param(const char* domainId, const char* name, MYSQL* conn);

// Deletes the parameter `name` of `id` where it has the value; with a null one, whatever its value.
int del_Parameter(const char* id, const char* name, const char* value, MYSQL* conn);
