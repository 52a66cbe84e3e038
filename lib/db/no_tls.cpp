// The database client's archive without TLS: its hooks into a TLS library, answered with "there is
// none". Linked in front of the archive, they keep its own ones, and with them OpenSSL, out of the
// program. The server is the local one, on a Unix socket, where the client never asks for TLS; one
// that insists on it refuses the login.
//
// What each hook returns is written in the client's public header, <ma_tls.h>. Without a connection
// that could be had from ma_tls_init(), none of those below it is ever called.

#include <errmsg.h>
#include <mysql.h>
#include <sys/types.h>

using uchar = unsigned char; // the header expects it

extern "C" {

#include <ma_tls.h>

char tls_library_version[TLS_VERSION_LENGTH] = "none";

int ma_tls_start(char*, size_t) {
    return 1;
}

void ma_tls_end() {}

void* ma_tls_init(MYSQL* connection) {
    my_set_error(connection, CR_SSL_CONNECTION_ERROR, SQLSTATE_UNKNOWN,
                 "TLS is not part of this program");
    return nullptr;
}

void ma_tls_set_connection(MYSQL*) {}

my_bool ma_tls_connect(MARIADB_TLS*) {
    return 1;
}

ssize_t ma_tls_read(MARIADB_TLS*, const uchar*, size_t) {
    return -1;
}

ssize_t ma_tls_write(MARIADB_TLS*, const uchar*, size_t) {
    return -1;
}

// The two that the header leaves out.
ssize_t ma_tls_read_async(MARIADB_PVIO*, const uchar*, size_t) {
    return -1;
}

ssize_t ma_tls_write_async(MARIADB_PVIO*, const uchar*, size_t) {
    return -1;
}

my_bool ma_tls_close(MARIADB_TLS*) {
    return 1;
}

int ma_tls_verify_server_cert(MARIADB_TLS*) {
    return 1;
}

const char* ma_tls_get_cipher(MARIADB_TLS*) {
    return nullptr;
}

unsigned ma_tls_get_finger_print(MARIADB_TLS*, char*, unsigned) {
    return 0;
}

int ma_tls_get_protocol_version(MARIADB_TLS*) {
    return -1;
}

} // extern "C"
