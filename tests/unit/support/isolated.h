#pragma once

// Runs a piece of a test in a process of its own, for what can end the process, writes to the
// standard streams, or changes the process.

#include <functional>
#include <string>

namespace isolated {

// The exit status of a body that returned.
constexpr int kReturned = 77;

struct Outcome {
    int exit_status;    // -1 when a signal ended the process
    int signal;         // 0 when none did
    std::string out;    // what went to standard output, also by children
    std::string err;    // what went to standard error
    std::string result; // what the body returned
};

// The body starts with errno 0, SIGPIPE ignored and PROGNAME "/usr/bin/prog".
Outcome run(const std::function<std::string()>& body);

std::string describe(const Outcome& outcome);

// The whole content of an open file, which is closed.
std::string content_of(int fd);

} // namespace isolated

// Compares all that a body can show; a failure prints it whole.
#define EXPECT_OUTCOME(outcome, want_status, want_out, want_err)                                   \
    do {                                                                                           \
        const isolated::Outcome& got_ = (outcome);                                                 \
        EXPECT_EQ(got_.exit_status, want_status) << isolated::describe(got_);                      \
        EXPECT_EQ(got_.out, want_out) << isolated::describe(got_);                                 \
        EXPECT_EQ(got_.err, want_err) << isolated::describe(got_);                                 \
    } while (false)

// The same where a message goes to both streams and nothing else does.
#define EXPECT_MESSAGE(outcome, want_status, want_text)                                            \
    EXPECT_OUTCOME(outcome, want_status, want_text, want_text)
