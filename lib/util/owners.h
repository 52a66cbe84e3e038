// Owners of plain C resources: each is released exactly once, on every path, and its release
// leaves `errno` as the step before it left it, so a failure can be reported after the clean-up.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

// Puts `errno` back at the end of its scope.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = kept_; }

private:
    int kept_ = errno;
};

struct FreeMemory {
    void operator()(void* memory) const {
        const ErrnoKeeper keeper;
        free(memory);
    }
};

// For streams that are read. A writer has to look at what `fclose` returns.
struct CloseFile {
    void operator()(FILE* file) const {
        const ErrnoKeeper keeper;
        fclose(file);
    }
};

// A NUL-terminated text that came from `malloc` (`strdup`, `asprintf`, `realloc` and the like).
using OwnedText = std::unique_ptr<char, FreeMemory>;
using InputFile = std::unique_ptr<FILE, CloseFile>;
