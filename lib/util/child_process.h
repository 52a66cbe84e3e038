#pragma once

// What the functions of fork_exec.h share: starting and ending children, pipes to them, and the
// one way of collecting an argument list. Internal to lib/util.

#include "owners.h"
#include "unique_fd.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <sys/types.h>

namespace quarx::child {

// A pipe with both ends close-on-exec and numbered above the standard descriptors.
struct Pipe {
    UniqueFd read_end;
    UniqueFd write_end;

    // False with errno of pipe2(2) or fcntl(2).
    bool open();
};

// Another descriptor of the same file, close-on-exec and above the standard ones; -1 with errno.
int duplicate(int fd);

// fork(2) that gives the child the default dispositions of SIGPIPE and SIGXFSZ, which programs of
// the panel ignore.
pid_t fork_child();

// waitpid(2), resumed after EINTR.
pid_t wait_child(pid_t pid, int* status, int options = 0);

// The exit status in a wait status, or -1 when the child did not end normally.
int exit_code(int status);

// For the child: puts the three descriptors on 0, 1 and 2 by dup2_custom and closes all others.
// A failure ends the child.
void place_descriptors(int fd_in, int fd_out, int fd_err);

// Closes every descriptor from 3 up: by close_range(2), or one by one up to getdtablesize(3) on a
// kernel that doesn't have it.
void close_all_others();

// For the child: a message on standard error, unbuffered, and the end with status 255, without
// flushing what the parent had buffered.
[[noreturn, gnu::format(printf, 1, 2)]] void end_child(const char* format, ...);

using Argument_vector = std::unique_ptr<char*[], FreeMemory>;

// A list, argument 0 first, as a vector. Ends the process with status 1 when there is no memory.
Argument_vector collect_arguments(va_list args);

// A vector of fixed size: argument 0 and at most kMostArguments of a list; the rest is left out.
constexpr size_t kMostArguments = 99;
using Short_arguments = std::array<char*, kMostArguments + 2>;
Short_arguments short_arguments(const char* argument0, va_list args);

} // namespace quarx::child
