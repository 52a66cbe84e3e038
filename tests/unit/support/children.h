#pragma once

// What the tests of lib/util/fork_exec.h share; for the bodies of isolated::run.

#include "isolated.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace children {

constexpr char kShell[] = "/bin/sh";

// An argument vector.
class Arguments {
public:
    Arguments(std::initializer_list<std::string> texts);
    char* const* get() const { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> pointers_;
};

// The vector that lets kShell run a script.
Arguments script(const std::string& text);

// A script that shows whether SIGPIPE was at its default: it is ended by the signal, else exits
// with kSigpipeIgnored.
constexpr char kSigpipeScript[] = "kill -PIPE $$; exit 66";
constexpr int kSigpipeIgnored = 66;

// Waits for a child and gives its exit status, or minus the number of the signal that ended it.
int wait_for(int pid);

// An open file with this content, at its start; close-on-exec unless it is inherited.
int file_with(const std::string& content, bool inherited = false);

using isolated::content_of;

// Reads and frees a text that came through a char**; "(null)" for a null one.
std::string take(char* text);

// Lets the process have no descriptor more than it has.
void exhaust_descriptors();

// How many bytes more are allocated after some further calls than after the first, which may leave
// buffers of the C library behind; mallinfo2(3).
long kept_by_calls(const std::function<void()>& call);

// Compares a process before and after: the descriptors that are open, and children not waited for.
class Leftovers {
public:
    Leftovers() : before_(descriptors()) {}
    // "" when nothing is left.
    std::string found() const;

private:
    static std::string descriptors();
    std::string before_;
};

} // namespace children
