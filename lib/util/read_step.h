#pragma once

// Reading a child's output into memory: the one step that every collector of lib/util repeats.
// Internal to lib/util.

#include <cstddef>
#include <sys/types.h>

namespace quarx::child {

// When and how a buffer grows before a read.
struct Growth {
    size_t least_room;
    size_t (*next_size)(size_t size);
};
extern const Growth kPipeGrowth;  // of read_to_buf
extern const Growth kShellGrowth; // of popen_exec_getoutput: by 4096 bytes when it is full

enum class Read_result { data, end, failed, no_memory };

// Grows *buf when growth says so and reads once from fd behind the *used bytes, leaving at least
// one byte free for a NUL. `failed` leaves errno of read(2), EAGAIN among others; `no_memory`
// leaves the buffer as it was.
Read_result read_step(int fd, char** buf, size_t* size, size_t* used, const Growth& growth);

// Repeats the step until it gives something else than data.
Read_result read_all(int fd, char** buf, size_t* size, size_t* used, const Growth& growth);

// read(2), resumed after EINTR.
ssize_t read_resumed(int fd, char* buf, size_t size);

} // namespace quarx::child
