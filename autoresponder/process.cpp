#include "autoresponder/process.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace {

constexpr int kOwnMemoryBytes = 128 * 1024;

// What the MariaDB client takes from the environment: the server's place, its credentials, where
// its plugins lie and which to load, where its option files lie. See "Environment Variables" in the
// MariaDB documentation, and mysql(1). The C library drops its own such variables itself (ld.so(8),
// "Secure-execution mode").
constexpr const char* kClientVariables[] = {
    "LIBMYSQL_ENABLE_CLEARTEXT_PLUGIN",
    "LIBMYSQL_PLUGINS",
    "LIBMYSQL_PLUGIN_DIR",
    "MARIADB_HOME",
    "MARIADB_PLUGIN_DIR",
    "MARIADB_TCP_PORT",
    "MARIADB_UNIX_PORT",
    "MYSQL_HOME",
    "MYSQL_PWD",
    "MYSQL_TCP_PORT",
    "MYSQL_UNIX_PORT",
    "OPENSSL_CONF",
    "SSL_CERT_DIR",
    "SSL_CERT_FILE",
};

} // namespace

void prepare_process() {
    // open(2) gives the lowest free number, so going upwards each hole is filled by its own call.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1)
            open("/dev/null", O_RDWR);
    // Left to itself, malloc(3) would keep large blocks once it has seen one freed; mallopt(3).
    mallopt(M_MMAP_THRESHOLD, kOwnMemoryBytes);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    if (getauxval(AT_SECURE) != 0)
        for (const char* name : kClientVariables)
            unsetenv(name);
}

void take_root_identity() {
    [[maybe_unused]] const int user_result = setuid(0);
    [[maybe_unused]] const int group_result = setgid(0);
}
