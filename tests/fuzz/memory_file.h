// A file in memory for what is read from a descriptor or by a name: memfd_create(2).
#pragma once

#include "lib/util/unique_fd.h"

#include <cstddef>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

class MemoryFile {
public:
    MemoryFile() : file_(memfd_create("input", MFD_CLOEXEC)) {}

    // Holds these bytes from now on and stands at its beginning.
    void fill(const void* bytes, std::size_t size) const {
        const bool done = ftruncate(file_.get(), 0) == 0 && lseek(file_.get(), 0, SEEK_SET) == 0 &&
                          write(file_.get(), bytes, size) == static_cast<ssize_t>(size) &&
                          lseek(file_.get(), 0, SEEK_SET) == 0;
        if (!done)
            std::abort();
    }

    int descriptor() const { return file_.get(); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

private:
    UniqueFd file_;
};

} // namespace fuzz
