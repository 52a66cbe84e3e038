#include "lib/db/quarx_db.h"

#include "lib/db/mysql_handles.h"
#include "lib/db/shut_connection.h"
#include "lib/util/messlog.h"
#include "lib/util/owners.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Weak, because only the client's archive has it: the shared library keeps it to itself.
extern "C" [[gnu::weak]] unsigned int mysql_port; // NOLINT(readability-redundant-declaration)

namespace {

constexpr const char* kPasswordPath = "/etc/qrx/.qrx.shadow";
constexpr const char* kHost = "localhost"; // the client's name for the server's Unix socket
constexpr const char* kUser = "admin";
constexpr const char* kDatabase = "qrx";

// A server that accepts and never answers must not hold the process for ever. The first bounds the
// handshake too, which a server in order does in milliseconds. The second is longer than the
// server's own wait for a locked row (innodb_lock_wait_timeout, 50 s), so that a lock is reported
// as one. It can't be long enough for a backup that locks whole tables (lock_wait_timeout, a day by
// default): meanwhile the message waits for its delivery, in one of the few places that a mail
// system has for local ones (qmail-send(8), concurrencylocal: 10).
constexpr unsigned kConnectSeconds = 10;
constexpr unsigned kAnswerSeconds = 60;

constexpr size_t kErrorSize = 4097;

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
    while (fgets(password.text, sizeof(password.text), file.get()) == nullptr) {
        if (!ferror(file.get()) || errno != EINTR) {
            snprintf(errbuf, size, "Unable to read admin password file: %s", strerror(errno));
            return false;
        }
        clearerr(file.get());
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

// The client library (10.11) doesn't check all of its allocations while it connects, and crashes
// where such a one fails. They come to less than half of this, so that a process with so little
// memory left fails here instead.
bool has_room_to_connect() {
    constexpr size_t kRoomBytes = 98304;
    void* volatile room = malloc(kRoomBytes); // volatile: or the compiler leaves it out
    free(room);
    return room != nullptr;
}

MYSQL* close_if_failed(MYSQL* connection) {
    MysqlConnection owner{connection};
    return owner != nullptr && mysql_errno(connection) == 0 ? owner.release() : nullptr;
}

} // namespace

void quarx_db_start_client() {
    // The server's TCP port, which nothing here uses. While it is 0, the start looks it up in the
    // services database, which costs some hundred system calls, may go over the network, and in
    // the GNU C library doesn't survive exhausted memory; see getservbyname(3).
    if (&mysql_port != nullptr && mysql_port == 0)
        mysql_port = MYSQL_PORT;
    mysql_server_init(0, nullptr, nullptr);
}

MYSQL* quarx_db_connect_raw_ex(char* errbuf, size_t size) {
    Password password;
    if (!read_password(password, errbuf, size))
        return nullptr;
    quarx_db_start_client();
    MysqlConnection connection{has_room_to_connect() ? mysql_init(nullptr) : nullptr};
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
    shut_unless_refused(connection);
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
