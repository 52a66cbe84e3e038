// The process's own configuration. Runs in the sandbox, whose /etc/qrx is the test's own; each case
// loads the file in a process of its own, because a process does so once.

#include "lib/conf/qrx_conf.h"
#include "support/isolated.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace {
int failing_calloc = 0; // n lets the n-th call fail
} // namespace

extern "C" {
void* __real_calloc(size_t count, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
    if (failing_calloc != 0 && --failing_calloc == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}
}

namespace {

const std::string kConfPath = "/etc/qrx/qrx.conf";

struct Variable {
    const char* name;
    const char* default_value;
};

const Variable kVariables[] = {
    {"_MIN_POSSIBLE_QRX_CONF_VAR_NAME", "_MIN_POSSIBLE_QRX_CONF_VAR_VALUE"},
    {"QUARX_MAILNAMES_D", "/var/qmail/mailnames"},
    {"COURIER_IMAP_ROOT_D", "/"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CLIENT_PHP_BIN", "/opt/qrx/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/usr/share/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/doc/awstats/examples"},
    {"AWSTATS_BIN_D", "/usr/lib/cgi-bin"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/usr/share/tomcat5.5"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/postgresql/8.3/main"},
    {"PGSQL_BIN_D", "/usr/lib/postgresql/8.3/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/qrx/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {"FTPD_CONF_INC", "/etc/proftpd.include"},
    {"HTTPD_SERVICE", "apache2"},
    {"HTTPD_LOG_D", "/var/log/apache2"},
    {"HTTPD_INCLUDE_D", "/etc/apache2/conf.d"},
    {"HTTPD_CONF_D", "/etc/apache2"},
    {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {"PRODUCT_ROOT_D", "/opt/qrx"},
    {"_MAX_POSSIBLE_QRX_CONF_VAR_NAME", "_MAX_POSSIBLE_QRX_CONF_VAR_VALUE"},
};

void write_conf(const std::string& content) {
    std::ofstream(kConfPath, std::ios::binary) << content;
}

std::string shown(const char* value) {
    return value != nullptr ? value : "(null)";
}

std::string shown(int result) {
    return std::to_string(result) + (result != 0 ? ", errno " + std::to_string(errno) : "");
}

class QrxConf : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all(kConfPath); }
};

// What the body gives, in silence.
void expect_result(const std::string& wanted, const std::function<std::string()>& body) {
    const isolated::Outcome outcome = isolated::run(body);
    EXPECT_OUTCOME(outcome, isolated::kReturned, "", "");
    EXPECT_EQ(outcome.result, wanted);
}

// What the body gives, and the message it writes.
void expect_message(const std::string& message, const std::string& wanted,
                    const std::function<std::string()>& body) {
    const isolated::Outcome outcome = isolated::run(body);
    EXPECT_MESSAGE(outcome, isolated::kReturned, message);
    EXPECT_EQ(outcome.result, wanted);
}

// --- Loading ---

TEST_F(QrxConf, loading_succeeds) {
    write_conf("A b\n");
    expect_result("0", [] { return shown(autoprepend()); });
}

TEST_F(QrxConf, the_file_is_read_once) {
    write_conf("A b\n");
    expect_result("0 0 b (null)", [] {
        std::string results = shown(autoprepend()) + " ";
        write_conf("A changed\nB new\n");
        results += shown(autoprepend()) + " ";
        return results + shown(qrxConfGet("A")) + " " + shown(qrxConfGet("B"));
    });
}

TEST_F(QrxConf, loading_fails_without_the_file) {
    expect_result("-1, errno 2", [] { return shown(autoprepend()); });
}

TEST_F(QrxConf, loading_fails_on_a_directory) {
    std::filesystem::create_directory(kConfPath);
    expect_result("-1, errno 21", [] { return shown(autoprepend()); });
}

TEST_F(QrxConf, loading_that_failed_is_tried_again) {
    expect_result("-1, errno 2; 0; b", [] {
        std::string results = shown(autoprepend()) + "; ";
        write_conf("A b\n");
        results += shown(autoprepend()) + "; ";
        return results + shown(qrxConfGet("A"));
    });
}

TEST_F(QrxConf, no_memory_for_the_store) {
    write_conf("A b\n");
    expect_message("prog: Not enough memory to allocate Quarx runtime configuration structure\n\n"
                   "System error 12: Cannot allocate memory\n",
                   "-1, errno 12; 0", [] {
                       failing_calloc = 1;
                       const std::string first = shown(autoprepend());
                       return first + "; " + shown(autoprepend());
                   });
}

TEST_F(QrxConf, no_memory_for_the_variables) {
    write_conf("A b\n");
    expect_result("-1, errno 12; 0; b", [] {
        failing_calloc = 2;
        std::string results = shown(autoprepend()) + "; ";
        results += shown(autoprepend()) + "; ";
        return results + shown(qrxConfGet("A"));
    });
}

// --- By name ---

TEST_F(QrxConf, a_variable_of_the_file) {
    write_conf("ANYTHING at all\n");
    expect_result("at all", [] { return shown(qrxConfGet("ANYTHING")); });
}

TEST_F(QrxConf, a_variable_that_the_file_lacks) {
    write_conf("A b\n");
    expect_result("(null)", [] { return shown(qrxConfGet("PRODUCT_ROOT_D")); });
}

TEST_F(QrxConf, a_variable_without_the_file) {
    expect_result("(null)", [] { return shown(qrxConfGet("PRODUCT_ROOT_D")); });
}

// --- By index ---

TEST_F(QrxConf, every_index_has_its_name) {
    std::string content;
    for (const Variable& variable : kVariables)
        content += std::string(variable.name) + " of-" + variable.name + "\n";
    write_conf(content);
    for (int index = 0; index < 30; ++index)
        expect_result(std::string("of-") + kVariables[index].name,
                      [index] { return shown(qrxConfGetByIndex(index)); });
}

TEST_F(QrxConf, every_index_has_its_default) {
    for (int index = 0; index < 30; ++index)
        expect_result(kVariables[index].default_value,
                      [index] { return shown(qrxConfGetDefaultByIndex(index)); });
}

TEST_F(QrxConf, the_mailnames_without_the_file) {
    expect_result("/var/qmail/mailnames", [] { return shown(qrxConfGetDefaultByIndex(1)); });
}

TEST_F(QrxConf, the_file_overrides_the_default) {
    write_conf("QUARX_MAILNAMES_D /srv/mail\n");
    expect_result("/srv/mail", [] { return shown(qrxConfGetDefaultByIndex(kConfMailnamesD)); });
}

TEST_F(QrxConf, a_file_without_the_variable_leaves_the_default) {
    write_conf("QUARX_MAILNAMES_D /srv/mail\n");
    expect_result("/opt/qrx", [] { return shown(qrxConfGetDefaultByIndex(kConfProductRootD)); });
}

TEST_F(QrxConf, an_index_that_the_file_lacks) {
    write_conf("A b\n");
    expect_result("(null)", [] { return shown(qrxConfGetByIndex(1)); });
}

TEST_F(QrxConf, a_missing_value_is_looked_for_again) {
    expect_result("(null) /srv/mail", [] {
        const std::string first = shown(qrxConfGetByIndex(1));
        write_conf("QUARX_MAILNAMES_D /srv/mail\n");
        return first + " " + shown(qrxConfGetByIndex(1));
    });
}

TEST_F(QrxConf, a_default_is_not_remembered_as_a_value) {
    expect_result("/var/qmail/mailnames /srv/mail", [] {
        const std::string first = shown(qrxConfGetDefaultByIndex(1));
        write_conf("QUARX_MAILNAMES_D /srv/mail\n");
        return first + " " + shown(qrxConfGetDefaultByIndex(1));
    });
}

TEST_F(QrxConf, a_value_by_index_stays_where_it_is) {
    write_conf("QUARX_MAILNAMES_D /srv/mail\n");
    expect_result("same", [] {
        const char* const first = qrxConfGetByIndex(1);
        return first != nullptr && first == qrxConfGetByIndex(1) ? "same" : "another";
    });
}

// --- A well-known variable by name ---

TEST_F(QrxConf, a_well_known_variable_of_the_file) {
    write_conf("HTTPD_SERVICE httpd\n");
    expect_result("httpd", [] { return shown(qrxConfGetDefault("HTTPD_SERVICE")); });
}

TEST_F(QrxConf, every_well_known_variable_has_its_default) {
    for (int index = 0; index < 29; ++index)
        expect_result(kVariables[index].default_value,
                      [index] { return shown(qrxConfGetDefault(kVariables[index].name)); });
}

TEST_F(QrxConf, the_leading_sentinel_is_searchable) {
    expect_result("_MIN_POSSIBLE_QRX_CONF_VAR_VALUE",
                  [] { return shown(qrxConfGetDefault("_MIN_POSSIBLE_QRX_CONF_VAR_NAME")); });
}

TEST_F(QrxConf, the_trailing_sentinel_is_not_searchable) {
    expect_message("prog: variable '_MAX_POSSIBLE_QRX_CONF_VAR_NAME' isn't found neither in "
                   "/etc/qrx/qrx.conf nor in compile-time defaults\n",
                   "(null)",
                   [] { return shown(qrxConfGetDefault("_MAX_POSSIBLE_QRX_CONF_VAR_NAME")); });
}

TEST_F(QrxConf, a_variable_of_the_file_that_is_not_well_known) {
    write_conf("OWN value\n");
    expect_message("prog: variable 'OWN' isn't found neither in /etc/qrx/qrx.conf nor in "
                   "compile-time defaults\n",
                   "(null)", [] { return shown(qrxConfGetDefault("OWN")); });
}

} // namespace
