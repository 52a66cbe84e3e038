#pragma once

// Owner of memory that came from malloc(3).

#include <cstdlib>
#include <memory>

struct FreeMalloced {
    void operator()(void* memory) const { std::free(memory); }
};

// A NUL-terminated text, or null.
using MallocedText = std::unique_ptr<char, FreeMalloced>;
