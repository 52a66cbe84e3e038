#include "child_process.h"

#include "fork_exec.h"
#include "messlog.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarx::child {

namespace {

// Replaces a descriptor by one that placing the standard ones can't overwrite.
bool move_above_standard(int* fd) {
    if (*fd > STDERR_FILENO)
        return true;
    const int moved = duplicate(*fd);
    if (moved != -1) {
        ::close(*fd);
        *fd = moved;
    }
    return moved != -1;
}

// Copies at most `most` pointers of a list and a null pointer behind them.
void copy_arguments(char** slots, size_t most, va_list args) {
    size_t count = 0;
    while (count < most && (slots[count] = va_arg(args, char*)))
        ++count;
    slots[count] = nullptr;
}

} // namespace

void Descriptor::close() {
    if (fd_ != -1)
        close_fd(&fd_);
}

bool Pipe::open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return false;
    *read_end.address() = ends[0];
    *write_end.address() = ends[1];
    return move_above_standard(read_end.address()) && move_above_standard(write_end.address());
}

int duplicate(int fd) {
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

pid_t fork_child() {
    const pid_t pid = fork();
    if (pid == 0)
        for (const int signal : {SIGPIPE, SIGXFSZ})
            std::signal(signal, SIG_DFL);
    return pid;
}

pid_t wait_child(pid_t pid, int* status, int options) {
    pid_t result;
    do
        result = waitpid(pid, status, options);
    while (result == -1 && errno == EINTR);
    return result;
}

int exit_code(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void place_descriptors(int fd_in, int fd_out, int fd_err) {
    if (dup2_custom(fd_in, STDIN_FILENO) == -1 || dup2_custom(fd_out, STDOUT_FILENO) == -1 ||
        dup2_custom(fd_err, STDERR_FILENO) == -1)
        end_child("fork_execv: dup() failed: %s\n", std::strerror(errno));
    close_all_others();
}

void close_all_others() {
    constexpr int kFirst = STDERR_FILENO + 1;
    if (close_range(kFirst, ~0U, 0) == 0)
        return;
    const int end = getdtablesize();
    for (int fd = kFirst; fd < end; ++fd)
        ::close(fd);
}

void end_child(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vdprintf(STDERR_FILENO, format, args);
    va_end(args);
    _exit(-1);
}

Argument_vector collect_arguments(va_list args) {
    va_list counting;
    va_copy(counting, args);
    size_t count = 0;
    while (va_arg(counting, char*))
        ++count;
    va_end(counting);

    Argument_vector vector(static_cast<char**>(std::malloc((count + 1) * sizeof(char*))));
    if (!vector)
        messlog2(1, 1, "malloc() failed: %s", std::strerror(errno));
    copy_arguments(vector.get(), count, args);
    return vector;
}

Short_arguments short_arguments(const char* argument0, va_list args) {
    Short_arguments vector;
    vector[0] = const_cast<char*>(argument0);
    copy_arguments(&vector[1], kMostArguments, args);
    return vector;
}

} // namespace quarx::child
