#include "autoresponder/message_source.h"

#include "autoresponder/mime_parser.h"
#include "autoresponder/report.h"
#include "lib/util/write_all.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kBlockBytes = 65536;

// read(2), resumed after a signal and waited for when the sender made its end non-blocking.
size_t read_some(int input, char* block, size_t room) {
    for (;;) {
        const ssize_t got = read(input, block, room);
        if (got >= 0)
            return static_cast<size_t>(got);
        if (errno == EAGAIN) {
            pollfd readable{input, POLLIN, 0};
            poll(&readable, 1, -1);
        } else if (errno != EINTR) {
            report_and_exit("autoresponder: Failed to read the message from standard input: " +
                            error_text(errno));
        }
    }
}

// How many bytes a regular file still has to give, 0 for anything else.
size_t expected_bytes(int input) {
    struct stat status {};
    if (fstat(input, &status) != 0 || !S_ISREG(status.st_mode))
        return 0;
    const off_t position = lseek(input, 0, SEEK_CUR);
    return position < status.st_size ? static_cast<size_t>(status.st_size - position) : 0;
}

} // namespace

DwString read_message(int input, int copy) {
    DwString text;
    text.reserve(expected_bytes(input) + 1);
    bool copying = true;
    const auto take = [&](const char* bytes, size_t count) {
        text.append(bytes, count);
        copying = copying && write_all(copy, bytes, count) == count;
    };
    std::array<char, kBlockBytes + 1> block; // and the line feed behind the last one
    size_t filled = 0;
    while (const size_t got = read_some(input, block.data() + filled, kBlockBytes - filled)) {
        filled += got;
        if (filled == kBlockBytes) {
            take(block.data(), filled);
            filled = 0;
        }
    }
    block[filled++] = '\n';
    take(block.data(), filled);
    return text;
}
