#include "spawned.h"

#include "lib/util/fork_exec.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

struct Child {
    spawned::Call call;
    int pid;
    int input; // where the child puts what it reads
};

std::vector<Child> children;
int next_error = 0;
bool next_ends_early = false;

[[noreturn]] void be_child(int source, int target) {
    // Among the caller's descriptors is the write end of the child's own pipe.
    for (int fd = 3; fd < 1024; ++fd)
        if (fd != source && fd != target)
            close(fd);
    char block[4096];
    for (ssize_t got; (got = read(source, block, sizeof block)) > 0;)
        if (write(target, block, static_cast<size_t>(got)) != got)
            _exit(1);
    _exit(0);
}

std::string take(int fd) {
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    if (pread(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        std::abort();
    return text;
}

int start(int fd_in, spawned::Call call) {
    if (next_error != 0) {
        errno = std::exchange(next_error, 0);
        return -1;
    }
    const int input = memfd_create("input", MFD_CLOEXEC);
    std::fflush(nullptr);
    const int pid = fork();
    if (input < 0 || pid < 0)
        std::abort();
    if (pid == 0 && next_ends_early)
        _exit(0);
    if (pid == 0)
        be_child(fd_in, input);
    if (std::exchange(next_ends_early, false)) // gone, but not yet waited for, when this returns
        waitid(P_PID, static_cast<id_t>(pid), nullptr, WEXITED | WNOWAIT);
    children.push_back({std::move(call), pid, input});
    return pid;
}

} // namespace

namespace spawned {

std::vector<Call> calls() {
    std::vector<Call> all;
    for (Child& child : children) {
        child.call.waited_for = waitpid(child.pid, nullptr, 0) < 0 && errno == ECHILD;
        child.call.input = take(child.input);
        all.push_back(child.call);
    }
    return all;
}

void forget() {
    for (const Child& child : children) {
        waitpid(child.pid, nullptr, 0);
        close(child.input);
    }
    children.clear();
    next_error = 0;
    next_ends_early = false;
}

void fail_next(int error) {
    next_error = error;
}

void end_next_early() {
    next_ends_early = true;
}

} // namespace spawned

int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path, char* const argv[]) {
    spawned::Call call{fd_out, fd_err, path, {}, {}, false};
    for (; *argv != nullptr; ++argv)
        call.arguments.emplace_back(*argv);
    return start(fd_in, std::move(call));
}

int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path, ...) {
    spawned::Call call{fd_out, fd_err, path, {}, {}, false};
    va_list arguments;
    va_start(arguments, path);
    while (const char* argument = va_arg(arguments, const char*))
        call.arguments.emplace_back(argument);
    va_end(arguments);
    return start(fd_in, std::move(call));
}
