#include "lib/db/quarx_db.h"

#include "lib/db/mysql_handles.h"
#include "lib/db/shut_connection.h"
#include "lib/util/messlog.h"
#include "lib/util/owners.h"
#include "lib/util/safe.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kQuerySize = 4096;
constexpr size_t kValueSize = 4096;

// The caller's connection, or one of its own, closed at the end, when the caller has none.
class Session {
public:
    explicit Session(MYSQL* given)
        : own_(given ? nullptr : db_connect()), connection_(given ? given : own_.get()) {}

    explicit operator bool() const { return connection_ != nullptr; }
    MYSQL* get() const { return connection_; }

private:
    MysqlConnection own_;
    MYSQL* connection_;
};

// `failure` takes the parameter's name and the server's error.
int execute(MYSQL* connection, const OwnedText& statement, const char* failure, const char* name) {
    if (mysql_real_query(connection, statement.get(), strlen(statement.get())) == 0)
        return 0;
    shut_unless_refused(connection);
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
        shut_unless_refused(session.get());
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
