#include "isolated.h"

#include "lib/util/messlog.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace isolated {

namespace {

int memory_file(const char* name) {
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd == -1) {
        std::perror("memfd_create");
        std::abort();
    }
    return fd;
}

// An exception from the body ends the process by SIGABRT.
[[noreturn]] void run_body(const std::function<std::string()>& body, int out, int err,
                           int result) noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    std::signal(SIGPIPE, SIG_IGN);
    static char name[] = "/usr/bin/prog";
    PROGNAME = name;
    errno = 0;
    const std::string text = body();
    std::fflush(nullptr);
    if (write(result, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        _exit(kReturned + 1);
    _exit(kReturned);
}

} // namespace

std::string content_of(int fd) {
    std::string text;
    char piece[65536];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t length; (length = read(fd, piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<size_t>(length));
    close(fd);
    return text;
}

Outcome run(const std::function<std::string()>& body) {
    const int out = memory_file("out");
    const int err = memory_file("err");
    const int result = memory_file("result");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
        run_body(body, out, err, result);
    int status = 0;
    if (pid == -1 || waitpid(pid, &status, 0) != pid) {
        std::perror("isolated::run");
        std::abort();
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0, content_of(out), content_of(err),
            content_of(result)};
}

std::string describe(const Outcome& outcome) {
    return "exit status " + std::to_string(outcome.exit_status) + ", signal " +
           std::to_string(outcome.signal) + "\nstandard output: " + outcome.out +
           "\nstandard error: " + outcome.err + "\nresult: " + outcome.result;
}

} // namespace isolated
