#include "autoresponder/process.h"

#include "autoresponder/paths.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <paths.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// open(2) gives the lowest free number, so going upwards each hole is filled by its own call.
void fill_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1 && open(_PATH_DEVNULL, O_RDWR) == -1)
            open("/", O_RDONLY | O_DIRECTORY);
}

// Of what a caller may set, these alone are known to reach the libraries:
//
// - The database client's: the server's socket and port (MYSQL_UNIX_PORT, MARIADB_UNIX_PORT,
//   MYSQL_TCP_PORT), a password (MYSQL_PWD), where plugins lie and which to load at once
//   (MARIADB_PLUGIN_DIR, LIBMYSQL_PLUGIN_DIR, LIBMYSQL_PLUGINS), whether a password may go out as
//   it is (LIBMYSQL_ENABLE_CLEARTEXT_PLUGIN), where option files lie (MYSQL_HOME, MARIADB_HOME;
//   HOME for ~/.my.cnf). "MariaDB Environment Variables" and "Configuring MariaDB Connector/C with
//   Option Files" in the MariaDB documentation; "Environment Variables" and mysql_real_connect() in
//   the MySQL 8.0 documentation.
// - OpenSSL's, where that client is linked with it: OPENSSL_CONF, OPENSSL_CONF_INCLUDE,
//   OPENSSL_ENGINES, OPENSSL_MODULES, SSL_CERT_DIR, SSL_CERT_FILE, SSLKEYLOGFILE; openssl-env(7).
//   OPENSSL_ia32cap is read before main() can drop it, and chooses among the processor's features
//   only.
// - libidn's CHARSET; "Stringprep Functions" in the libidn manual.
// - The C library's locale and time zone: LANG, LANGUAGE, LC_*, TZ; locale(7), tzset(3). It drops
//   LD_PRELOAD, GCONV_PATH and its like itself; ld.so(8), "Secure-execution mode".
//
// And others reach what root's children run: BASH_ENV of bash(1), PERL5OPT of perlrun(1),
// MAIL_CONFIG of postconf(5). No list of these can be complete, so what may stay is listed instead.
void forget_callers_environment() {
    // clearenv(3) lets go of the list; the texts lie in the process's initial memory.
    const char* recipient = std::getenv(paths::kRecipientVariable);
    clearenv();
    if (recipient != nullptr)
        setenv(paths::kRecipientVariable, recipient, 1);
    setenv("PATH", _PATH_STDPATH, 1);
}

} // namespace

void prepare_process() {
    fill_standard_descriptors();
    // Left to itself, malloc(3) would keep large blocks once it has seen one freed; mallopt(3).
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(kOwnMemoryBytes));
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    if (getauxval(AT_SECURE) != 0) {
        forget_callers_environment();
        umask(S_IWGRP | S_IWOTH);
    }
}

void take_root_identity() {
    [[maybe_unused]] const int user_result = setuid(0);
    [[maybe_unused]] const int group_result = setgid(0);
}

void forbid_core_dumps() {
    prctl(PR_SET_DUMPABLE, 0);
}
