#pragma once

// Owner of one file descriptor.

#include <unistd.h>
#include <utility>

// Closes its descriptor when it goes; -1 (what a failed open(2) gives) means that it owns none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // For functions that set, or close and clear, a descriptor through its address.
    int* address() { return &fd_; }

    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }

    // Closes the descriptor and takes `fd` in its place.
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0)
            close(old);
    }

private:
    int fd_ = -1;
};
