#pragma once

// write(2) until everything is written.

#include <cerrno>
#include <cstddef>
#include <unistd.h>

// Writes `count` bytes to `fd`, resuming after signals and short writes. Returns how many were
// written: fewer than `count` on failure, with errno as write(2) left it.
inline size_t write_all(int fd, const char* bytes, size_t count) {
    size_t written = 0;
    while (written < count) {
        const ssize_t now = write(fd, bytes + written, count - written);
        if (now >= 0)
            written += static_cast<size_t>(now);
        else if (errno != EINTR)
            break;
    }
    return written;
}
