// A library for LD_PRELOAD: the N-th allocation that a program makes from the start of main on
// fails.
//
//   QRX_FAIL_MALLOC     "N": the N-th alone, from 1; "N+": that and all later ones
//   QRX_MALLOC_RECORD   a file that gets a line "failed" for each failure; without QRX_FAIL_MALLOC
//                       a line "made" for each allocation
//
// It is in front of the C library's malloc family, which that library's own functions and operator
// new of either kind of linking go through: see "Replacing malloc" in the GNU C library's manual.
// Children that a program forks count on; a statically linked program isn't concerned.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

using Main = int (*)(int, char**, char**);

Main program_main;
bool counting = false;
unsigned long made = 0;
unsigned long first_to_fail = 0;
bool all_later_too = false;
int record = -1;

void note(const char* line, size_t length) {
    [[maybe_unused]] const ssize_t written = write(record, line, length);
}

bool fails() {
    if (!counting)
        return false;
    ++made;
    if (first_to_fail == 0) {
        note("made\n", 5);
        return false;
    }
    if (made < first_to_fail || (made > first_to_fail && !all_later_too))
        return false;
    note("failed\n", 7);
    errno = ENOMEM;
    return true;
}

int counted_main(int argc, char** argv, char** environment) {
    if (const char* wish = std::getenv("QRX_FAIL_MALLOC")) {
        char* end;
        first_to_fail = std::strtoul(wish, &end, 10);
        all_later_too = *end == '+';
    }
    // A number that no descriptor of the program gets, and that isn't in a child's way.
    constexpr int kOutOfTheWay = 900;
    if (const char* path = std::getenv("QRX_MALLOC_RECORD")) {
        const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        record = fcntl(fd, F_DUPFD_CLOEXEC, kOutOfTheWay);
        close(fd);
    }
    counting = true;
    return program_main(argc, argv, environment);
}

} // namespace

extern "C" {

void* malloc(size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    return fails() ? nullptr : __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
    return fails() ? nullptr : __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block ? 0 : ENOMEM;
}

int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(),
                      void (*loader_fini)(), void* stack_end) {
    program_main = main;
    using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
    const auto start = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(counted_main, argc, argv, init, fini, loader_fini, stack_end);
}
}
