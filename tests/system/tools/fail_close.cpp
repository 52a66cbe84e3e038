// A library for LD_PRELOAD: the N-th close(2) of a program reports an error, after it has freed the
// descriptor, as the kernel does it (close(2), NOTES).
//
//   QRX_FAIL_CLOSE      "N ERRNO", N from 1
//   QRX_CLOSE_RECORD    a file that is made when it comes to that
//
// The C library's own closing, as in fclose(3), isn't concerned.

#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

extern "C" int close(int fd) {
    using Close = int (*)(int);
    static const auto real = reinterpret_cast<Close>(dlsym(RTLD_NEXT, "close"));
    static const char* const wish = std::getenv("QRX_FAIL_CLOSE");
    static const char* const record = std::getenv("QRX_CLOSE_RECORD");
    static unsigned long made = 0;
    unsigned long number = 0;
    int error = 0;
    const int result = real(fd);
    if (!wish || std::sscanf(wish, "%lu %d", &number, &error) != 2 || ++made != number)
        return result;
    if (record)
        real(open(record, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    errno = error;
    return -1;
}
