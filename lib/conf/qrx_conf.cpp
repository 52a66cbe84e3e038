#include "lib/conf/qrx_conf.h"

#include "lib/util/messlog.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

namespace {

constexpr const char* kConfPath = "/etc/qrx/qrx.conf";

constexpr const char* theQrxConfNames[] = {
    "_MIN_POSSIBLE_QRX_CONF_VAR_NAME",
    "QUARX_MAILNAMES_D",
    "COURIER_IMAP_ROOT_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "FTPD_CONF_INC",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_QRX_CONF_VAR_NAME",
};

// The default of the variable at the same place of the table above.
constexpr const char* theQrxConfDefauls[] = {
    "_MIN_POSSIBLE_QRX_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/",
    "/usr/sbin/rblsmtpd",
    "/opt/qrx/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/awstats",
    "/usr/share/doc/awstats/examples",
    "/usr/lib/cgi-bin",
    "/etc/awstats",
    "/usr/share/tomcat5.5",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/postgresql/8.3/main",
    "/usr/lib/postgresql/8.3/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/qrx/dumps",
    "/tmp",
    "/var/named/run-root",
    "/etc/proftpd.include",
    "apache2",
    "/var/log/apache2",
    "/etc/apache2/conf.d",
    "/etc/apache2",
    "/var/www/vhosts",
    "/opt/qrx",
    "_MAX_POSSIBLE_QRX_CONF_VAR_VALUE",
};

constexpr int kVariables = 30;
static_assert(std::size(theQrxConfNames) == kVariables);
static_assert(std::size(theQrxConfDefauls) == kVariables);
static_assert(theQrxConfNames[kConfMailnamesD] == std::string_view("QUARX_MAILNAMES_D"));
static_assert(theQrxConfNames[kConfProductRootD] == std::string_view("PRODUCT_ROOT_D"));

const conf_store* theQrxConfHash = nullptr;
const char* theQrxConfArray[kVariables];
int arrayInitialized = 0;

void initialize_array() {
    if (arrayInitialized != 0)
        return;
    std::fill(std::begin(theQrxConfArray), std::end(theQrxConfArray), nullptr);
    arrayInitialized = 1;
}

struct FreeStore {
    void operator()(conf_store* store) const { conf_free_r(store); }
};

} // namespace

int autoprepend() {
    if (theQrxConfHash != nullptr)
        return 0;
    initialize_array();
    std::unique_ptr<conf_store, FreeStore> store{
        static_cast<conf_store*>(calloc(1, sizeof(conf_store)))};
    if (store == nullptr) {
        messlog2(0, 1, "Not enough memory to allocate Quarx runtime configuration structure\n");
        return -1;
    }
    if (conf_read_file_r(kConfPath, store.get()) != 0)
        return -1;
    theQrxConfHash = store.release();
    return 0;
}

const char* qrxConfGet(const char* name) {
    if (autoprepend() != 0)
        return nullptr;
    return conf_get_r(name, theQrxConfHash);
}

const char* qrxConfGetByIndex(int index) {
    initialize_array();
    const char*& cached = theQrxConfArray[index];
    if (cached == nullptr)
        cached = qrxConfGet(theQrxConfNames[index]);
    return cached;
}

const char* qrxConfGetDefaultByIndex(int index) {
    const char* const value = qrxConfGetByIndex(index);
    return value != nullptr ? value : theQrxConfDefauls[index];
}

const char* qrxConfGetDefault(const char* name) {
    for (int index = 0; index < kVariables - 1; ++index)
        if (strcmp(name, theQrxConfNames[index]) == 0)
            return qrxConfGetDefaultByIndex(index);
    messlog2(0, 1, "variable '%s' isn't found neither in %s nor in compile-time defaults\n", name,
             kConfPath);
    return nullptr;
}
