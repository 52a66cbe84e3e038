#pragma once

#include "lib/util/errno_keeper.h"

#include <cstdio>
#include <memory>

struct CloseInputFile {
    void operator()(std::FILE* file) const {
        const ErrnoKeeper keeper;
        std::fclose(file);
    }
};

// Owner of a stream that is read; to close it leaves errno alone. Not for one that is written,
// whose last error only fclose(3) tells.
using InputFile = std::unique_ptr<std::FILE, CloseInputFile>;
