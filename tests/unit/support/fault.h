#pragma once

// Faults of the C library for tests: a program that links fault.cpp can make one of its calls, or
// all from one on, fail with an errno of its choice. Meant for isolated::run, where an armed fault
// ends with the process.

namespace fault {

enum class Call { allocate, fork, read, poll, fcntl, close_range };

constexpr int kOnce = 1;
constexpr int kForGood = -1;

// Lets the nth call from now on fail (1: the next), `times` times. malloc(3) and realloc(3) count
// together as allocate.
void arm(Call call, int nth, int error, int times = kOnce);

// False in programs whose allocator is a sanitizer's own; tests that need allocations to fail then
// skip with kNoMemoryFaults as the reason.
extern const bool kMemoryFaults;
constexpr char kNoMemoryFaults[] = "the sanitizer brings its own allocator, which can't be made to "
                                   "fail call by call";

} // namespace fault
