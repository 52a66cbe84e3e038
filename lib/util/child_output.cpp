#include "fork_exec.h"

#include "child_process.h"
#include "messlog.h"
#include "read_step.h"
#include "safe.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quarx::child;

namespace {

constexpr int kPollMilliseconds = 1000;

// One output of the child on its way into memory.
struct Capture {
    Pipe pipe;
    char* text = nullptr;
    size_t size = 0;
    size_t used = 0;

    // Returns the child's end.
    int open() {
        if (!pipe.open())
            messlog2(1, 1, "fork_execv_getouterr: pipe() failed");
        // Only this end: a child does not expect EAGAIN from its outputs.
        if (fcntl(pipe.read_end.get(), F_SETFL, O_NONBLOCK) == -1)
            messlog2(1, 1, "fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
        return pipe.write_end.get();
    }

    int fd() const { return pipe.read_end.get(); }

    void read() { read_to_buf(pipe.read_end.address(), &text, &size, &used); }

    char* finish() {
        if (!text)
            text = static_cast<char*>(malloc_safe(1));
        text[used] = '\0';
        return text;
    }
};

// Reads both outputs until they have ended, or until the child has and nothing more comes.
// poll(2) ignores the -1 of an output that has ended or was never opened; unlike select(2) it takes
// descriptors of any number. Returns what wait_child returned for the child.
pid_t read_and_wait(pid_t pid, int* status, Capture& out, Capture& err) {
    pid_t waited = 0;
    while (out.fd() != -1 || err.fd() != -1) {
        pollfd outputs[] = {{out.fd(), POLLIN, 0}, {err.fd(), POLLIN, 0}};
        const int ready = poll(outputs, 2, waited == 0 ? kPollMilliseconds : 0);
        if (ready == -1 && errno != EINTR)
            break;
        if (ready == 0) {
            if (waited != 0)
                break;
            // What the child wrote just before its end is still read, without waiting for more.
            waited = wait_child(pid, status, WNOHANG);
        }
        if (ready > 0 && outputs[0].revents)
            out.read();
        if (ready > 0 && outputs[1].revents)
            err.read();
    }
    // A child that could not be read to its end must not wait for a reader.
    out.pipe.read_end.reset();
    err.pipe.read_end.reset();
    return waited != 0 ? waited : wait_child(pid, status);
}

} // namespace

int read_to_buf(int* fd, char** buf, size_t* size, size_t* used) {
    const size_t before = *used;
    switch (read_step(*fd, buf, size, used, kPipeGrowth)) {
    case Read_result::data:
        return static_cast<int>(*used - before);
    case Read_result::end:
        close_fd(fd);
        return 0;
    case Read_result::no_memory:
        messlog2(1, 1, "Cannot allocate memory");
        break;
    case Read_result::failed:
        if (errno != EAGAIN) {
            messlog2(0, 0, "fork_exec*: read(pipe) failed: %s\n", std::strerror(errno));
            close_fd(fd);
        }
        break;
    }
    return -1;
}

int fork_execv_getouterr(const char* path, char* const argv[], char** out, char** err) {
    Capture out_capture, err_capture;
    const int fd_out = out ? out_capture.open() : STDOUT_FILENO;
    const int fd_err = err ? err_capture.open() : STDERR_FILENO;
    const pid_t pid = fork_execv_pipes(STDIN_FILENO, fd_out, fd_err, path, argv);
    out_capture.pipe.write_end.reset();
    err_capture.pipe.write_end.reset();

    int status = 0;
    const pid_t waited = read_and_wait(pid, &status, out_capture, err_capture);
    if (out)
        *out = out_capture.finish();
    if (err)
        *err = err_capture.finish();
    return waited == -1 ? -1 : exit_code(status);
}

int fork_execl_getouterr(char** out, char** err, const char* path, ...) {
    va_list args;
    va_start(args, path);
    const Argument_vector argv = collect_arguments(args);
    va_end(args);
    return fork_execv_getouterr(path, argv.get(), out, err);
}

int fork_execv_getout(const char* path, char* const argv[], char** out) {
    return fork_execv_getouterr(path, argv, out, nullptr);
}

int fork_execl_getout(char** out, const char* path, ...) {
    va_list args;
    va_start(args, path);
    const Argument_vector argv = collect_arguments(args);
    va_end(args);
    return fork_execv_getout(path, argv.get(), out);
}
