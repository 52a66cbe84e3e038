#pragma once

// What the code under test starts. In a program that links this file, fork_execl_pipes and
// fork_execv_pipes don't start the program that they are given: they note the call, and the child
// only reads its standard input to the end. So a start that fails can be tried too, which the real
// functions turn into the end of the process.

#include <string>
#include <vector>

namespace spawned {

struct Call {
    int fd_out;
    int fd_err;
    std::string path;
    std::vector<std::string> arguments;
    std::string input; // all that the child could read
    bool waited_for;
};

// All calls since the last forget(). The children that nobody waited for are waited for here.
std::vector<Call> calls();
void forget();

// The next start fails: the result is negative and errno is `error`.
void fail_next(int error);

// The next child reads nothing and has ended when the start returns.
void end_next_early();

} // namespace spawned
