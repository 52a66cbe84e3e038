#include "read_step.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace quarx::child {

namespace {

constexpr size_t kGrowStep = 4096;

} // namespace

const Growth kPipeGrowth{
    2048, [](size_t size) { return size > kGrowStep ? size * 2 : size + kGrowStep; }};
const Growth kShellGrowth{2, [](size_t size) { return size + kGrowStep; }};

ssize_t read_resumed(int fd, char* buf, size_t size) {
    ssize_t result;
    do
        result = read(fd, buf, size);
    while (result == -1 && errno == EINTR);
    return result;
}

Read_result read_step(int fd, char** buf, size_t* size, size_t* used, const Growth& growth) {
    if (*size - *used < growth.least_room) {
        const size_t grown_size = growth.next_size(*size);
        void* grown = std::realloc(*buf, grown_size);
        if (!grown)
            return Read_result::no_memory;
        *buf = static_cast<char*>(grown);
        *size = grown_size;
    }
    const ssize_t count = read_resumed(fd, *buf + *used, *size - *used - 1);
    if (count == -1)
        return Read_result::failed;
    *used += static_cast<size_t>(count);
    return count == 0 ? Read_result::end : Read_result::data;
}

Read_result read_all(int fd, char** buf, size_t* size, size_t* used, const Growth& growth) {
    Read_result result;
    do
        result = read_step(fd, buf, size, used, growth);
    while (result == Read_result::data);
    return result;
}

} // namespace quarx::child
