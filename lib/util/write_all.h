#pragma once

// write(2) until everything is written.

#include <cerrno>
#include <cstddef>
#include <unistd.h>

// Writes `count` bytes to `fd`, resuming after signals and short writes. Returns false, with errno
// as write(2) left it, when not all of them could be written.
inline bool write_all(int fd, const char* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = write(fd, bytes, count);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}
