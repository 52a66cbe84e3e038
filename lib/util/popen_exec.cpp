#include "fork_exec.h"

#include "messlog.h"
#include "read_step.h"
#include "write_all.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

using namespace quarx::child;

namespace {

constexpr size_t kFirstBuffer = 4097;

// Sets the disposition of SIGPIPE for as long as it lives.
class Sigpipe {
public:
    explicit Sigpipe(void (*disposition)(int)) {
        struct sigaction action = {};
        action.sa_handler = disposition;
        sigaction(SIGPIPE, &action, &before_);
    }
    Sigpipe(const Sigpipe&) = delete;
    Sigpipe& operator=(const Sigpipe&) = delete;
    ~Sigpipe() { sigaction(SIGPIPE, &before_, nullptr); }

private:
    struct sigaction before_ = {};
};

// popen(3) of a close-on-exec stream. The shell inherits the disposition of SIGPIPE from here.
std::FILE* open_command(const char* command, const char* mode) {
    const Sigpipe inherited(SIG_DFL);
    return popen(command, mode);
}

int close_command(std::FILE* stream) {
    return pclose_status_to_rc(pclose(stream));
}

} // namespace

int pclose_status_to_rc(int status) {
    return status == -1 ? -1 : (status >> 8) & 0xff;
}

int popen_exec_getoutput(const char* command, char** output) {
    size_t size = kFirstBuffer;
    size_t used = 0;
    *output = static_cast<char*>(std::malloc(size));
    if (!*output) {
        messlog2(0, 0, "popen_exec: failed to allocate memory\n");
        return -1;
    }
    std::FILE* stream = open_command(command, "re");
    if (!stream) {
        messlog2(0, 0,
                 "popen_exec: failed to execute command: fork or pipe calls failed, or cannot "
                 "allocate memory\n");
        std::free(*output);
        *output = nullptr;
        return -1;
    }
    const int fd = fileno(stream);
    if (read_all(fd, output, &size, &used, kShellGrowth) == Read_result::no_memory) {
        messlog2(0, 0,
                 "popen_exec: warning: failed to allocate memory for command output buffer\n");
        // The rest is read too, so that the command ends in its own way and not by SIGPIPE.
        do
            used = 0;
        while (read_step(fd, output, &size, &used, kShellGrowth) == Read_result::data);
    }
    (*output)[used] = '\0';
    return close_command(stream);
}

int popen_exec(const char* command) {
    char* output;
    const int code = popen_exec_getoutput(command, &output);
    if (code == -1)
        messlog2(0, 0, "popen_exec: failed to execute command: %s\n", command);
    else if (code != 0)
        messlog2(0, 0, "popen_exec: command failed code: %d , %s\n", code,
                 *output ? output : "error: none");
    std::free(output);
    return code;
}

int popen_exec_with_input(const char* command, const char* input) {
    std::FILE* stream = open_command(command, "we");
    if (!stream) {
        messlog2(0, 0,
                 "Failed to execute command with input: either pipe, fork or memory allocation "
                 "failed.");
        return -1;
    }
    const size_t size = std::strlen(input);
    size_t written;
    {
        const Sigpipe during_write(SIG_IGN);
        written = write_all(fileno(stream), input, size);
    }
    if (written < size)
        messlog2(0, 0, "Failed to execute command with input: only %u of %u bytes were written.",
                 static_cast<unsigned>(written), static_cast<unsigned>(size));
    const int code = close_command(stream);
    return written < size ? -1 : code;
}
