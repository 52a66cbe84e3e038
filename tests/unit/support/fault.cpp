#include "fault.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <dlfcn.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define QRX_OWN_ALLOCATOR 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QRX_OWN_ALLOCATOR 0
#endif
#endif
#ifndef QRX_OWN_ALLOCATOR
#define QRX_OWN_ALLOCATOR 1
#endif

namespace {

struct Fault {
    int countdown; // 0: not armed
    int error;
    int times;
};
Fault faults[6];

bool strikes(fault::Call call) {
    Fault& fault = faults[static_cast<size_t>(call)];
    if (fault.countdown == 0 || --fault.countdown > 0)
        return false;
    if (fault.times > 0)
        --fault.times;
    fault.countdown = fault.times == 0 ? 0 : 1;
    errno = fault.error;
    return true;
}

} // namespace

namespace fault {

const bool kMemoryFaults = QRX_OWN_ALLOCATOR;

void arm(Call call, int nth, int error, int times) {
    faults[static_cast<size_t>(call)] = {nth, error, times};
}

} // namespace fault

using fault::Call;

extern "C" {

#if QRX_OWN_ALLOCATOR
void* __libc_malloc(size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) noexcept {
    return strikes(Call::allocate) ? nullptr : __libc_malloc(size);
}

void* realloc(void* block, size_t size) noexcept {
    return strikes(Call::allocate) ? nullptr : __libc_realloc(block, size);
}
#endif

pid_t fork() noexcept {
    using Function = pid_t (*)();
    return strikes(Call::fork) ? -1 : reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fork"))();
}

ssize_t read(int fd, void* buf, size_t size) {
    return strikes(Call::read) ? -1 : syscall(SYS_read, fd, buf, size);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    return strikes(Call::poll) ? -1 : static_cast<int>(syscall(SYS_poll, fds, count, timeout));
}

int fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    return strikes(Call::fcntl) ? -1 : static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}

int close_range(unsigned first, unsigned last, int flags) noexcept {
    return strikes(Call::close_range)
               ? -1
               : static_cast<int>(syscall(SYS_close_range, first, last, flags));
}

#if defined(QRX_COVERAGE)
void __gcov_dump(void);

// Children that end without exit(3) have counted too; writing that needs memory and descriptors.
void _exit(int status) {
    for (Fault& fault : faults)
        fault = {};
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    __gcov_dump();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
#endif

} // extern "C"
