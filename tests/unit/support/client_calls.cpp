#include "client_calls.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

ClientCalls client_calls;

extern "C" {

MYSQL* __real_mysql_init(MYSQL* connection);
void __real_mysql_close(MYSQL* connection);
unsigned __real_mysql_errno(MYSQL* connection);
int __real_mysql_options(MYSQL* connection, mysql_option option, const void* value);
int __real_mysql_query(MYSQL* connection, const char* statement);
int __real_mysql_real_query(MYSQL* connection, const char* statement, unsigned long length);
MYSQL* __real_mysql_real_connect(MYSQL* connection, const char* host, const char* user,
                                 const char* password, const char* database, unsigned port,
                                 const char* socket, unsigned long flags);
void* __real_malloc(size_t size);
FILE* __real_fopen(const char* path, const char* mode);
void __real_explicit_bzero(void* memory, size_t size);

MYSQL* __wrap_mysql_init(MYSQL* connection) {
    if (client_calls.init_fails)
        return nullptr;
    ++client_calls.inits;
    return __real_mysql_init(connection);
}

void __wrap_mysql_close(MYSQL* connection) {
    ++client_calls.closes;
    __real_mysql_close(connection);
}

unsigned __wrap_mysql_errno(MYSQL* connection) {
    return client_calls.reported_error != 0 ? client_calls.reported_error
                                            : __real_mysql_errno(connection);
}

int __wrap_mysql_options(MYSQL* connection, mysql_option option, const void* value) {
    client_calls.options[option] = *static_cast<const unsigned*>(value);
    if (option == MYSQL_OPT_CONNECT_TIMEOUT && client_calls.connect_timeout != 0)
        value = &client_calls.connect_timeout;
    if (option == MYSQL_OPT_READ_TIMEOUT && client_calls.read_timeout != 0)
        value = &client_calls.read_timeout;
    return __real_mysql_options(connection, option, value);
}

int __wrap_mysql_query(MYSQL* connection, const char* statement) {
    client_calls.statements.emplace_back(statement);
    if (client_calls.query_fails_silently)
        return 1;
    if (!client_calls.query_instead.empty())
        statement = client_calls.query_instead.c_str();
    return __real_mysql_query(connection, statement);
}

int __wrap_mysql_real_query(MYSQL* connection, const char* statement, unsigned long length) {
    client_calls.statements.emplace_back(statement, length);
    return __real_mysql_real_query(connection, statement, length);
}

MYSQL* __wrap_mysql_real_connect(MYSQL* connection, const char* host, const char* user,
                                 const char* password, const char* database, unsigned port,
                                 const char* socket, unsigned long flags) {
    client_calls.connect_arguments = std::string(host) + "|" + user + "|" + password + "|" +
                                     database + "|" + std::to_string(port) + "|" +
                                     (socket != nullptr ? socket : "(null)") + "|" +
                                     std::to_string(flags);
    return __real_mysql_real_connect(connection, host, user, password, database, port, socket,
                                     flags);
}

void* __wrap_malloc(size_t size) {
    if (size <= client_calls.largest_block)
        return __real_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* const file = __real_fopen(path, mode);
    if (file != nullptr && (fcntl(fileno(file), F_GETFD) & FD_CLOEXEC) == 0)
        ++client_calls.inheritable_files;
    return file;
}

void __wrap_explicit_bzero(void* memory, size_t size) {
    client_calls.wiped.emplace_back(static_cast<const char*>(memory));
    __real_explicit_bzero(memory, size);
}

// What a fortified build calls in its place.
void __wrap___explicit_bzero_chk(void* memory, size_t size, size_t /*room*/) {
    __wrap_explicit_bzero(memory, size);
}

} // extern "C"
