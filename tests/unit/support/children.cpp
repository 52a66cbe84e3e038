#include "children.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <set>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// Of the sanitizers' allocator, where the program has it: sanitizer/allocator_interface.h.
extern "C" [[gnu::weak]] size_t __sanitizer_get_current_allocated_bytes();

namespace children {

namespace {

size_t allocated_bytes() {
    return __sanitizer_get_current_allocated_bytes != nullptr
               ? __sanitizer_get_current_allocated_bytes()
               : mallinfo2().uordblks;
}

} // namespace

Arguments::Arguments(std::initializer_list<std::string> texts) : texts_(texts) {
    for (std::string& text : texts_)
        pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
}

Arguments script(const std::string& text) {
    return {"sh", "-c", text};
}

int wait_for(int pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int file_with(const std::string& content, bool inherited) {
    const int fd = memfd_create("content", inherited ? 0 : MFD_CLOEXEC);
    if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        std::abort();
    lseek(fd, 0, SEEK_SET);
    return fd;
}

std::string take(char* text) {
    const std::string copy = text ? text : "(null)";
    std::free(text);
    return copy;
}

long kept_by_calls(const std::function<void()>& call) {
    call();
    const size_t before = allocated_bytes();
    // What malloc keeps for the next request of one size counts as allocated; it keeps 7 of them.
    for (int i = 0; i < 10; ++i)
        call();
    return static_cast<long>(allocated_bytes()) - static_cast<long>(before);
}

void exhaust_descriptors() {
    static rlimit before;
    const int lowest_free = dup(0);
    close(lowest_free);
    if (getrlimit(RLIMIT_NOFILE, &before) == -1)
        std::abort();
    const rlimit none{static_cast<rlim_t>(lowest_free), before.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &none) == -1)
        std::abort();
    // Exit handlers that were there before, such as a leak checker's, open files.
    std::atexit([] { setrlimit(RLIMIT_NOFILE, &before); });
}

std::string Leftovers::descriptors() {
    const int error = errno;
    std::set<int> numbers;
    for (int fd = 0; fd < 1024; ++fd)
        if (fcntl(fd, F_GETFD) != -1)
            numbers.insert(fd);
    std::string list;
    for (const int fd : numbers)
        list += " " + std::to_string(fd);
    errno = error;
    return list;
}

std::string Leftovers::found() const {
    const std::string now = descriptors();
    std::string result;
    if (now != before_)
        result += "descriptors" + before_ + " became" + now;
    if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD)
        result += " a child is left";
    return result;
}

} // namespace children
