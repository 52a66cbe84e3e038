#include "messlog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>
#include <syslog.h>

char* PROGNAME = nullptr;

int LogFacility = LOG_MAIL;
int LogLevel = 6;
int LogEnabled = 1;
void (*quarx_log)(int level, const char* format, ...) = _quarx_utility_log;
void (*quarx_logv)(int level, const char* format, va_list args) = _quarx_utility_logv;

namespace {

constexpr size_t kMessageSize = 4096;

// Formats into *buffer, of kMessageSize bytes, which grows when that is too small; where it can't
// grow the text stays cut. Returns the size of the buffer.
[[gnu::format(printf, 2, 0)]] size_t format_text(char** buffer, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    size_t size = kMessageSize;
    const int length = std::vsnprintf(*buffer, size, format, args);
    if (length >= static_cast<int>(size)) {
        const size_t needed = static_cast<size_t>(length) + 1;
        if (void* grown = std::realloc(*buffer, needed)) {
            *buffer = static_cast<char*>(grown);
            size = needed;
            std::vsnprintf(*buffer, size, format, again);
        }
    }
    va_end(again);
    return size;
}

// Appends the system error's line if it fits. The buffer is not grown for it, which is meant.
void append_system_error(char* buffer, size_t size, int error) {
    const size_t length = std::strlen(buffer);
    const size_t room = size - length;
    const int added =
        std::snprintf(buffer + length, room, "\nSystem error %d: %s", error, std::strerror(error));
    if (added >= static_cast<int>(room))
        buffer[length] = '\0';
}

void write_message(std::FILE* stream, const char* text) {
    const char* name = PROGNAME ? basename(PROGNAME) : "";
    const size_t length = std::strlen(text);
    const bool ended = length > 0 && text[length - 1] == '\n';
    std::fprintf(stream, "%s%s%s%s", name, *name ? ": " : "", text, ended ? "" : "\n");
    std::fflush(stream);
}

} // namespace

void messlog2(int status, int flag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vmesslog2(status, flag, format, args);
    va_end(args);
}

void vmesslog2(int status, int flag, const char* format, va_list args) {
    const int error = errno;
    char* buffer = static_cast<char*>(std::malloc(kMessageSize));
    if (buffer) {
        const size_t size = format_text(&buffer, format, args);
        if (error != 0)
            append_system_error(buffer, size, error);
        ex_messlog(buffer, status, flag);
        std::free(buffer);
    } else {
        ex_messlog("Can't allocate memory for error message", status, flag);
    }
    errno = error;
}

void ex_messlog(const char* text, int status, int /*flag*/) {
    write_message(stderr, text);
    write_message(stdout, text);
    if (status != 0)
        std::exit(status);
}

void _quarx_utility_log(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _quarx_utility_logv(level, format, args);
    va_end(args);
}

void _quarx_utility_logv(int level, const char* format, va_list args) {
    if (!LogEnabled || level > LogLevel)
        return;
    for (std::FILE* stream : {stderr, stdout}) {
        va_list copy;
        va_copy(copy, args);
        std::vfprintf(stream, format, copy);
        va_end(copy);
        std::fputc('\n', stream);
        std::fflush(stream);
    }
}

void quarx_log_init(const char* target, int level, int facility, int options, const char* ident) {
    static constexpr char kConsole[] = "console";
    LogFacility = facility;
    LogEnabled = level >= 1;
    LogLevel = LogEnabled ? level : 0;
    if (!target) {
        closelog();
        openlog(ident, options | LOG_PID, facility);
        quarx_log = syslog;
        quarx_logv = vsyslog;
        return;
    }
    quarx_log = _quarx_utility_log;
    quarx_logv = _quarx_utility_logv;
    if (strncasecmp(target, kConsole, sizeof kConsole - 1) != 0)
        LogEnabled = 0;
}
