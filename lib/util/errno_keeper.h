#pragma once

#include <cerrno>

// Puts errno back at the end of its scope, for clean-up and reports behind a failure.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = kept_; }

private:
    int kept_ = errno;
};
