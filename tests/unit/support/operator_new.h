#pragma once

// The operator new of a test program: it counts its calls and refuses some, as a process does whose
// memory is at its end. A program that includes this links operator_new.cpp.

#include <cstddef>
#include <cstdint>

struct OperatorNew {
    size_t calls = 0;

    // Asked for.
    size_t refused_call = 0;               // its number, from 1; 0: none
    size_t refused_size = SIZE_MAX;        // bytes; all that asks for so many or more
    bool refusal_is_a_logic_error = false; // in place of std::bad_alloc
};

extern OperatorNew operator_new;
