#include "operator_new.h"

#include <cerrno>
#include <cstdlib>
#include <new>
#include <stdexcept>

OperatorNew operator_new;

// Not inlined: g++ would see malloc there and take the pair for a mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
    const bool refused =
        ++operator_new.calls == operator_new.refused_call || size >= operator_new.refused_size;
    void* memory = refused ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        if (operator_new.refusal_is_a_logic_error)
            throw std::logic_error("refused");
        errno = ENOMEM;
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
