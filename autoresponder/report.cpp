#include "autoresponder/report.h"

#include "autoresponder/mail_content.h"

#include <cerrno>
#include <cstring>
#include <sys/uio.h>
#include <unistd.h>

namespace {

void write_line(std::string_view text, std::string_view detail) {
    // writev(2) takes pointers to bytes that may change, and changes none.
    const auto part = [](std::string_view bytes) {
        return iovec{const_cast<char*>(bytes.data()), bytes.size()};
    };
    const iovec parts[] = {part(text), part(detail), part("\n")};
    while (writev(STDERR_FILENO, parts, 3) < 0 && errno == EINTR) {
    }
}

} // namespace

void report(std::string_view line) {
    write_line(line, {});
}

std::string error_text(int error) {
    return std::string(std::strerror(error)) + " (" + std::to_string(error) + ")";
}

void report_and_exit(std::string_view line, std::string_view detail) {
    write_line(line, detail);
    correct_exit();
}
