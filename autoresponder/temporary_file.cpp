#include "autoresponder/temporary_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool is_own_regular_file(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

} // namespace

UniqueFd create_temporary(const char* name) {
    constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
    UniqueFd file(open(name, kFlags, kOwnerOnly));
    if (!file && errno == EEXIST && unlink(name) == 0)
        file.reset(open(name, kFlags, kOwnerOnly));
    return file;
}

UniqueFd open_temporary(const char* name) {
    // Without O_NONBLOCK a FIFO under this name would hold the run until somebody writes to it.
    UniqueFd file(open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && !is_own_regular_file(file.get())) {
        file.reset();
        errno = EACCES;
    }
    return file;
}
