#include "panel.h"

#include "lib/db/quarx_db.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

std::vector<std::string> sent;
int countdown = 0; // to the statement to refuse, 0 for none

using QueryFunction = int (*)(MYSQL*, const char*, unsigned long);

int real_query(MYSQL* connection, const std::string& statement) {
    static const auto client =
        reinterpret_cast<QueryFunction>(dlsym(RTLD_NEXT, "mysql_real_query"));
    return client(connection, statement.data(), statement.size());
}

// Never closed: a death test's child must not say goodbye to the server in its parent's name.
MYSQL* own_connection() {
    static MYSQL* const connection = db_connect();
    return connection;
}

[[noreturn]] void give_up(const std::string& statement, MYSQL* connection) {
    std::fprintf(stderr, "%s: %s\n", statement.c_str(), mysql_error(connection));
    std::abort();
}

panel::Row to_row(MYSQL_ROW fields, const unsigned long* lengths, unsigned count) {
    panel::Row row(count);
    for (unsigned i = 0; i < count; ++i)
        if (fields[i] != nullptr)
            row[i] = std::string(fields[i], lengths[i]);
    return row;
}

} // namespace

// Takes the place of the client library's function of this name.
extern "C" int mysql_real_query(MYSQL* connection, const char* text, unsigned long length) {
    sent.emplace_back(text, length);
    const bool refused = countdown > 0 && --countdown == 0;
    return real_query(connection, refused ? "select 1 from refused" : sent.back());
}

namespace panel {

void run(const std::string& statement, MYSQL* connection) {
    if (connection == nullptr)
        connection = own_connection();
    if (real_query(connection, statement) != 0)
        give_up(statement, connection);
}

std::vector<Row> rows(const std::string& query) {
    run(query);
    const MysqlResult result(mysql_store_result(own_connection()));
    if (!result)
        give_up(query, own_connection());
    std::vector<Row> all;
    while (const MYSQL_ROW fields = mysql_fetch_row(result.get()))
        all.push_back(
            to_row(fields, mysql_fetch_lengths(result.get()), mysql_num_fields(result.get())));
    return all;
}

std::string value(const std::string& query) {
    const std::vector<Row> all = rows(query);
    return all.empty() ? "none" : all[0].at(0).value_or("NULL");
}

const std::vector<std::string>& statements() {
    return sent;
}

void forget_statements() {
    sent.clear();
}

void refuse_statement(int nth) {
    countdown = nth;
}

} // namespace panel

void PanelTest::SetUp() {
    SandboxTest::SetUp();
    if (HasFatalFailure())
        return;
    panel::refuse_statement(0);
    panel::run("set sql_mode=''");
    for (const char* table : {"clients", "domains", "domainaliases", "mail", "mail_aliases",
                              "mail_resp", "resp_forward", "resp_attach", "resp_freq", "misc"})
        panel::run(std::string("truncate table ") + table);
    connection_.reset(db_connect());
    ASSERT_TRUE(connection_);
    panel::forget_statements();
}
