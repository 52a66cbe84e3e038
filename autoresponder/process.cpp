#include "autoresponder/process.h"

#include "autoresponder/paths.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <paths.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// open(2) gives the lowest free number, so going upwards each hole is filled by its own call.
void fill_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1 && open(_PATH_DEVNULL, O_RDWR) == -1)
            open("/", O_RDONLY | O_DIRECTORY);
}

// What a caller's variables can do to the libraries and to root's children is listed in
// SECURITY.md. No such list can be complete, so what may stay is listed here instead.
void forget_callers_environment() {
    // clearenv(3) lets go of the list; the texts lie in the process's initial memory.
    const char* recipient = std::getenv(paths::kRecipientVariable);
    clearenv();
    if (recipient != nullptr)
        setenv(paths::kRecipientVariable, recipient, 1);
    setenv("PATH", _PATH_STDPATH, 1);
}

} // namespace

void prepare_process() {
    fill_standard_descriptors();
    // Left to itself, malloc(3) would keep large blocks once it has seen one freed; mallopt(3).
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(kMmapThresholdBytes));
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    if (getauxval(AT_SECURE) != 0) {
        forget_callers_environment();
        umask(S_IWGRP | S_IWOTH);
    }
}

void take_root_identity() {
    [[maybe_unused]] const int user_result = setuid(0);
    [[maybe_unused]] const int group_result = setgid(0);
}

void forbid_core_dumps() {
    prctl(PR_SET_DUMPABLE, 0);
}
