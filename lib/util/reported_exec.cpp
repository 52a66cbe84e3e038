#include "fork_exec.h"

#include "child_process.h"
#include "messlog.h"
#include "read_step.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using namespace quarx::child;

namespace {

constexpr size_t kPieceSize = 4096;

using Text = std::unique_ptr<char[], FreeMemory>;

// For the child: another descriptor of a file that is to be placed twice, or where another one
// goes.
int duplicate_to_place(int fd) {
    const int copy = duplicate(fd);
    if (copy == -1)
        end_child("fork_execv: dup() failed: %s\n", std::strerror(errno));
    return copy;
}

[[noreturn]] void run_with_fds(int fd_in, int fd_out, int fd_err, const char* path,
                               char* const argv[]) {
    if (fd_out == STDIN_FILENO || (fd_out == fd_in && fd_out != -1))
        fd_out = duplicate_to_place(fd_out);
    place_descriptors(fd_in, fd_out, fd_err);
    errno = 0;
    execv(path, argv);
    end_child("Error occured during execv():\n%s%s", std::strerror(errno),
              errno == EFAULT ? ", possible reason - NULL parameter is absent in "
                                "util_exec(path, arg1, arg2, NULL) call.\n"
                              : ".\n");
}

void log_pieces(int fd) {
    char piece[kPieceSize];
    ssize_t length;
    while ((length = read_resumed(fd, piece, sizeof piece - 1)) > 0) {
        piece[length] = '\0';
        messlog2(0, 0, "%s", piece);
    }
}

[[noreturn]] void run_utility(int fd, const char* path, char* const argv[]) {
    place_descriptors(STDIN_FILENO, fd, duplicate_to_place(fd));
    errno = 0;
    execv(path, argv);
    end_child("Cannot exec %s:\n%s", path, std::strerror(errno));
}

// The whole text of a descriptor, or null after a message.
Text collect_text(int fd) {
    char* text = nullptr;
    size_t size = 0;
    size_t used = 0;
    const Read_result result = read_all(fd, &text, &size, &used, kPipeGrowth);
    if (result == Read_result::end) {
        text[used] = '\0';
        return Text(text);
    }
    messlog2(0, 0,
             result == Read_result::no_memory ? "Cannot allocate buffer:\n%s"
                                              : "Cannot read child output:\n%s",
             std::strerror(errno));
    std::free(text);
    return nullptr;
}

// The signals by which the kernel ends a program for its own fault.
bool is_fault(int signal) {
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL ||
           signal == SIGABRT;
}

void report_end(const char* path, int status, const char* text) {
    if (WIFSIGNALED(status) && is_fault(WTERMSIG(status)))
        messlog2(0, 0, "utility %s crashed (status %d):\n%s", path, status, text);
    else if (WIFSIGNALED(status))
        messlog2(0, 0, "utility %s killed (signal %d):\n%s", path, WTERMSIG(status), text);
    else if (WEXITSTATUS(status) != 0)
        messlog2(0, 0, "utility %s failed (result=%d):\n%s", path, WEXITSTATUS(status), text);
}

} // namespace

int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]) {
    if (fd_in == STDIN_FILENO || fd_out == STDOUT_FILENO) {
        messlog2(0, 0, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        return -1;
    }
    Pipe errors;
    if (!errors.open()) {
        messlog2(0, 0, "fork_exec_fd pipe(): %s", std::strerror(errno));
        return -1;
    }
    const pid_t pid = fork_child();
    if (pid == -1) {
        messlog2(0, 0, "Error occured during fork():\n%s", std::strerror(errno));
        return -1;
    }
    if (pid == 0)
        run_with_fds(fd_in, fd_out, errors.write_end.get(), path, argv);
    errors.write_end.reset();
    log_pieces(errors.read_end.get());
    errors.read_end.reset();

    int status;
    if (wait_child(pid, &status, WUNTRACED) == -1) {
        messlog2(0, 0, "Error occured during waiting the child process with pid: %d: %s\n", pid,
                 std::strerror(errno));
        return -1;
    }
    if (WIFSTOPPED(status))
        messlog2(0, 0, "The child process with pid %d stopped by signal %i\n", pid,
                 WSTOPSIG(status));
    else if (WIFSIGNALED(status))
        messlog2(0, 0, "The child process with pid %d killed by signal %i\n", pid,
                 WTERMSIG(status));
    return exit_code(status);
}

int fork_execv_getoutput(const char* path, char* const argv[], char** output) {
    *output = nullptr;
    Pipe pipe;
    if (!pipe.open()) {
        messlog2(0, 0, "fork_execvv_getoutput pipe():\n%s", std::strerror(errno));
        return -1;
    }
    const pid_t pid = fork_child();
    if (pid == -1) {
        messlog2(0, 0, "Cannot fork():\n%s", std::strerror(errno));
        return -1;
    }
    if (pid == 0)
        run_utility(pipe.write_end.get(), path, argv);
    pipe.write_end.reset();
    Text text = collect_text(pipe.read_end.get());
    // A child that could not be read to its end must not wait for a reader.
    pipe.read_end.reset();

    int status;
    if (wait_child(pid, &status) == -1) {
        messlog2(0, 0, "error:\n%s", std::strerror(errno));
        return -1;
    }
    if (!text)
        return -1;
    report_end(path, status, text.get());
    *output = text.release();
    return exit_code(status);
}
