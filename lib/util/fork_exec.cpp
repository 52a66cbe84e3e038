#include "fork_exec.h"

#include "child_process.h"
#include "messlog.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quarx::child;

namespace {

constexpr char kNull[] = "/dev/null";

// For the child: closes the standard descriptors and puts /dev/null on all three.
bool place_null() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        close(fd);
    // The lowest number is free now, so this is standard input.
    return open(kNull, O_RDWR) == STDIN_FILENO && dup2(STDIN_FILENO, STDOUT_FILENO) != -1 &&
           dup2(STDIN_FILENO, STDERR_FILENO) != -1;
}

} // namespace

int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path, char* const argv[]) {
    const pid_t pid = fork_child();
    if (pid == -1)
        messlog2(1, 1, "fork_execv_pipes: fork() failed");
    if (pid != 0)
        return pid;

    place_descriptors(fd_in, fd_out, fd_err);
    errno = 0;
    execv(path, argv);
    end_child("fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(errno));
}

int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path, ...) {
    va_list args;
    va_start(args, path);
    const Argument_vector argv = collect_arguments(args);
    va_end(args);
    return fork_execv_pipes(fd_in, fd_out, fd_err, path, argv.get());
}

int dup2_custom(int fd, int target) {
    if (fd == target)
        return fd;
    if (fd == -1) {
        fd = open(kNull, O_RDWR);
        // A closed target can be the number that /dev/null gets: then it is in its place.
        if (fd == -1 || fd == target)
            return fd;
    }
    const int result = dup2(fd, target);
    close(fd);
    return result;
}

int close_fd(int* fd) {
    const int result = close(*fd);
    *fd = -1;
    return result;
}

int fork_execv(const char* path, ...) {
    va_list args;
    va_start(args, path);
    const Short_arguments argv = short_arguments(path, args);
    va_end(args);

    const pid_t pid = fork_child();
    if (pid == 0) {
        if (place_null())
            execv(path, argv.data());
        _exit(-1);
    }
    int status;
    if (pid == -1 || wait_child(pid, &status) == -1)
        return -1;
    return WIFSIGNALED(status) ? 1 : WEXITSTATUS(status);
}

int do_exec(const char* path, char* const argv[]) {
    const pid_t pid = fork_child();
    if (pid == -1)
        messlog2(1, 1, "Unable to fork");
    if (pid == 0) {
        execv(path, argv);
        _exit(-1);
    }
    int status;
    return wait_child(pid, &status) == -1 ? -1 : status;
}
