#pragma once

// The sandbox's panel database in driver tests: filling and reading its tables, and what the code
// under test sends there. A program that links this file sees every statement that goes through
// mysql_real_query(3); the server gets it all the same.

#include "sandbox_test.h"

#include "lib/db/mysql_handles.h"

#include <optional>
#include <string>
#include <vector>

namespace panel {

// On a connection of the test's own, or the one given; not counted below. Trouble ends the program.
using Row = std::vector<std::optional<std::string>>; // nothing for SQL NULL
void run(const std::string& statement, MYSQL* connection = nullptr);
std::vector<Row> rows(const std::string& query);
std::string value(const std::string& query); // the first row's first field, "none" without one

// The statements sent since they were last forgotten.
const std::vector<std::string>& statements();
void forget_statements();

// Makes the nth statement from now on (1: the next) one that the server refuses for this reason.
void refuse_statement(int nth);
constexpr char kRefusal[] = "Table 'qrx.refused' doesn't exist";

} // namespace panel

// Each case has empty tables and a connection for the code under test.
class PanelTest : public SandboxTest {
protected:
    void SetUp() override;
    MYSQL* connection() { return connection_.get(); }

private:
    MysqlConnection connection_;
};
