#include "lib/db/quarx_db.h"

#include "lib/db/mysql_handles.h"
#include "lib/util/messlog.h"
#include "lib/util/owners.h"
#include "lib/util/safe.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* kPasswordPath = "/etc/qrx/.qrx.shadow";
constexpr const char* kHost = "localhost"; // the client's name for the server's Unix socket
constexpr const char* kUser = "admin";
constexpr const char* kDatabase = "qrx";

// A server that accepts and never answers must not hold the process for ever. The wait for an
// answer is longer than the server's own for a locked row (innodb_lock_wait_timeout, 50 s), so a
// lock is reported as one.
constexpr unsigned kConnectSeconds = 10;
constexpr unsigned kAnswerSeconds = 60;

constexpr size_t kErrorSize = 4097;
constexpr size_t kQuerySize = 4096;
constexpr size_t kValueSize = 4096;

// Wiped at the end; the client's own copy goes with the connection.
struct Password {
    char text[100] = "";

    Password() = default;
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;
    ~Password() { explicit_bzero(text, sizeof(text)); }
};

bool read_password(Password& password, char* errbuf, size_t size) {
    const InputFile file{fopen(kPasswordPath, "rte")};
    if (file == nullptr) {
        snprintf(errbuf, size, "Unable to open admin password file: %s", strerror(errno));
        return false;
    }
    if (fgets(password.text, sizeof(password.text), file.get()) == nullptr) {
        snprintf(errbuf, size, "Unable to read admin password file: %s", strerror(errno));
        return false;
    }
    const size_t length = strlen(password.text);
    if (length != 0 && password.text[length - 1] == '\n')
        password.text[length - 1] = '\0';
    return true;
}

void set_options(MYSQL* connection) {
    mysql_options(connection, MYSQL_OPT_CONNECT_TIMEOUT, &kConnectSeconds);
    mysql_options(connection, MYSQL_OPT_READ_TIMEOUT, &kAnswerSeconds);
    mysql_options(connection, MYSQL_OPT_WRITE_TIMEOUT, &kAnswerSeconds);
    constexpr unsigned off = 0; // no server may ask this process for a file
    mysql_options(connection, MYSQL_OPT_LOCAL_INFILE, &off);
}

MYSQL* close_if_failed(MYSQL* connection) {
    MysqlConnection owner{connection};
    return owner != nullptr && mysql_errno(connection) == 0 ? owner.release() : nullptr;
}

// The caller's connection, or one of its own, closed at the end, when the caller has none.
class Session {
public:
    explicit Session(MYSQL* given)
        : own_{given == nullptr ? db_connect() : nullptr}, connection_{given == nullptr ? own_.get()
                                                                                        : given} {}

    explicit operator bool() const { return connection_ != nullptr; }
    MYSQL* get() const { return connection_; }

private:
    MysqlConnection own_;
    MYSQL* connection_;
};

// `failure` takes the parameter's name and the server's error.
int execute(MYSQL* connection, const OwnedText& statement, const char* failure,
            const char* name) {
    if (mysql_real_query(connection, statement.get(), strlen(statement.get())) == 0)
        return 0;
    messlog2(0, 1, failure, name, mysql_error(connection));
    return -1;
}

Session session_of_deleter(MYSQL* given) {
    Session session{given};
    if (!session)
        messlog2(0, 0, "Unable to connect to mysql database\n");
    return session;
}

} // namespace

MYSQL* quarx_db_connect_raw_ex(char* errbuf, size_t size) {
    Password password;
    if (!read_password(password, errbuf, size))
        return nullptr;
    MysqlConnection connection{mysql_init(nullptr)};
    if (connection == nullptr) {
        snprintf(errbuf, size, "Unable to initialize MySQL connection structure: %s",
                 strerror(ENOMEM));
        errno = ENOMEM;
        return nullptr;
    }
    set_options(connection.get());
    if (mysql_real_connect(connection.get(), kHost, kUser, password.text, kDatabase, 0, nullptr,
                           0) == nullptr) {
        snprintf(errbuf, size, "Unable to connect to Quarx Database: %s",
                 mysql_error(connection.get()));
        return nullptr;
    }
    return connection.release();
}

MYSQL* quarx_db_connect_raw(char* errbuf, size_t size) {
    return close_if_failed(quarx_db_connect_raw_ex(errbuf, size));
}

MYSQL* quarx_db_connect_ex(char* errbuf, size_t size) {
    constexpr const char* step = "set names query";
    MYSQL* const connection = quarx_db_connect_raw_ex(errbuf, size);
    if (connection == nullptr || mysql_query(connection, "SET NAMES utf8") == 0)
        return connection;
    if (mysql_errno(connection) != 0)
        snprintf(errbuf, size, "DB error (%s) %u: %s", step, mysql_errno(connection),
                 mysql_error(connection));
    else
        snprintf(errbuf, size, "DB error (%s): unknown error", step);
    return connection;
}

MYSQL* quarx_db_connect(char* errbuf, size_t size) {
    return close_if_failed(quarx_db_connect_ex(errbuf, size));
}

MYSQL* db_connect_nothrow(char* errbuf, size_t size) {
    return quarx_db_connect(errbuf, size);
}

MYSQL* db_connect() {
    char error[kErrorSize] = "";
    MYSQL* const connection = quarx_db_connect(error, sizeof(error));
    if (connection == nullptr)
        messlog2(0, 0, "%s", error);
    return connection;
}

const char* get_param_from_bigquery(const char* query, MYSQL* conn, int column) {
    static char value[kValueSize]; // nothing writes its last byte: it ends a cut value

    const Session session{conn};
    if (!session) {
        messlog2(0, 1, "Unable to connect to the mysql database\n");
        return nullptr;
    }
    MysqlResult result;
    bool failed = mysql_query(session.get(), query) != 0;
    if (!failed) {
        result.reset(mysql_store_result(session.get()));
        // A result that can't be fetched is no missing row; a statement without rows has no result.
        failed = result == nullptr && mysql_errno(session.get()) != 0;
    }
    if (failed) {
        messlog2(0, 1, "Unable to query parameter by query %s: %s\n", query,
                 mysql_error(session.get()));
        return nullptr;
    }
    const auto index = static_cast<unsigned>(column);
    const bool has_column = result != nullptr && index < mysql_num_fields(result.get());
    const MYSQL_ROW row = has_column ? mysql_fetch_row(result.get()) : nullptr;
    const char* const field = row != nullptr ? row[index] : nullptr;
    strncpy(value, field != nullptr ? field : "", sizeof(value) - 1);
    return value;
}

const char* get_param_query(const char* query, MYSQL* conn) {
    return get_param_from_bigquery(query, conn, 0);
}

const char* get_param_simple(const char* value, const char* table, const char* keyColumn,
                             const char* column, MYSQL* conn) {
    char query[kQuerySize];
    snprintf(query, sizeof(query), "select %s from %s where %s='%s'", column, table, keyColumn,
             value);
    return get_param_query(query, conn);
}

const char* get_param(const char* name, MYSQL* conn) {
    return get_param_simple(name, "misc", "param", "val", conn);
}

char* escape_mysql_param(MYSQL* conn, const char* text) {
    if (text == nullptr)
        return nullptr;
    const size_t length = strlen(text); // below PTRDIFF_MAX: the doubled size fits
    auto* const escaped = static_cast<char*>(realloc_safe(nullptr, 2 * length + 1));
    mysql_real_escape_string(conn, escaped, text, length);
    return escaped;
}

int put_param(const char* name, const char* value, MYSQL* conn) {
    const Session session{conn};
    if (!session) {
        messlog2(0, 1, "Unable to connect to mysql database");
        return -1;
    }
    const OwnedText escaped{escape_mysql_param(session.get(), value)};
    const OwnedText statement{
        escaped != nullptr ? asprintf_safe("replace into misc (param, val) values('%s', '%s')",
                                           name, escaped.get())
                           : asprintf_safe("replace into misc (param) values('%s')", name)};
    return execute(session.get(), statement, "Unable to put parameter %s into misc: %s", name);
}

int del_param(const char* name, MYSQL* conn) {
    const Session session = session_of_deleter(conn);
    if (!session)
        return -1;
    const OwnedText statement{asprintf_safe("delete from misc where param='%s'", name)};
    return execute(session.get(), statement, "Unable to delete parameter %s from misc: %s", name);
}

int del_dom_param(const char* domainId, const char* name, MYSQL* conn) {
    const Session session = session_of_deleter(conn);
    if (!session)
        return -1;
    const OwnedText statement{
        asprintf_safe("delete from dom_param where dom_id='%s' and param='%s'", domainId, name)};
    return execute(session.get(), statement, "Unable to delete parameter %s from dom_param: %s",
                   name);
}

int del_Parameter(const char* id, const char* name, const char* value, MYSQL* conn) {
    const Session session = session_of_deleter(conn);
    if (!session)
        return -1;
    const OwnedText escaped{escape_mysql_param(session.get(), value)};
    const OwnedText statement{
        escaped != nullptr
            ? asprintf_safe(
                  "delete from Parameters where id='%s' and parameter='%s' and value='%s'", id,
                  name, escaped.get())
            : asprintf_safe("delete from Parameters where id='%s' and parameter='%s'", id, name)};
    return execute(session.get(), statement, "Unable to delete parameter %s from Parameters: %s",
                   name);
}
