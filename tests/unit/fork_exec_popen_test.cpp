#include "lib/util/fork_exec.h"

#include "support/children.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <regex>

namespace {

using namespace children;
using isolated::kReturned;
using isolated::Outcome;

constexpr char kEmfile[] = "\nSystem error 24: Too many open files\n";
constexpr char kEnomem[] = "\nSystem error 12: Cannot allocate memory\n";

constexpr char kNotStarted[] = "prog: popen_exec: failed to execute command: fork or pipe calls "
                               "failed, or cannot allocate memory\n";
constexpr char kNoFirstBuffer[] = "prog: popen_exec: failed to allocate memory\n";
constexpr char kOutputDropped[] =
    "prog: popen_exec: warning: failed to allocate memory for command output buffer\n";

TEST(PcloseStatusToRc, GivesTheExitStatusByte) {
    EXPECT_EQ(pclose_status_to_rc(-1), -1);
    EXPECT_EQ(pclose_status_to_rc(0), 0);
    EXPECT_EQ(pclose_status_to_rc(3 << 8), 3);
    EXPECT_EQ(pclose_status_to_rc(255 << 8), 255);
    EXPECT_EQ(pclose_status_to_rc(0x10300), 3);
}

TEST(PcloseStatusToRc, ASignalIsZero) {
    EXPECT_EQ(pclose_status_to_rc(SIGKILL), 0);
}

Outcome getoutput(const std::string& command) {
    return isolated::run([&] {
        const Leftovers leftovers;
        char* output;
        const int code = popen_exec_getoutput(command.c_str(), &output);
        return std::to_string(code) + "|" + take(output) + leftovers.found();
    });
}

TEST(PopenExecGetoutput, CollectsStandardOutput) {
    const Outcome outcome = getoutput("echo one; echo error >&2; echo two; exit 7");
    EXPECT_OUTCOME(outcome, kReturned, "", "error\n");
    EXPECT_EQ(outcome.result, "7|one\ntwo\n");
}

TEST(PopenExecGetoutput, NoOutputIsAnEmptyText) {
    EXPECT_EQ(getoutput("exit 0").result, "0|");
}

TEST(PopenExecGetoutput, CollectsAnyLength) {
    for (const size_t length : {4095u, 4096u, 4097u, 8192u, 8193u, 1000000u}) {
        const Outcome outcome =
            getoutput("head -c " + std::to_string(length) + " /dev/zero | tr '\\0' a");
        EXPECT_TRUE(outcome.result == "0|" + std::string(length, 'a'))
            << length << " " << outcome.result.size();
    }
}

TEST(PopenExecGetoutput, ACommandThatDoesNotExistIsTheShellsAffair) {
    const Outcome outcome = getoutput("/no/such/command 2>/dev/null");
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "127|");
}

TEST(PopenExecGetoutput, WaitsForACommandThatHasClosedItsOutput) {
    EXPECT_EQ(getoutput("echo x; exec >&-; sleep 0.2; exit 4").result, "4|x\n");
}

TEST(PopenExecGetoutput, GivesSigpipeItsDefaultBackAndKeepsTheCallers) {
    const Outcome outcome = isolated::run([] {
        char* output;
        const int code = popen_exec_getoutput(kSigpipeScript, &output);
        take(output);
        struct sigaction action;
        sigaction(SIGPIPE, nullptr, &action);
        return std::to_string(code) + (action.sa_handler == SIG_IGN ? " ignored" : " changed");
    });
    // The status byte of a shell that a signal ended is 0.
    EXPECT_EQ(outcome.result, "0 ignored");
}

TEST(PopenExecGetoutput, KeepsTheOutputOfACommandWhoseEndIsNotToBeHad) {
    // The kernel buries the children of a process that ignores SIGCHLD; see wait(2).
    const Outcome outcome = isolated::run([] {
        std::signal(SIGCHLD, SIG_IGN);
        char* output;
        const int code = popen_exec_getoutput("echo x", &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "-1|x\n");
}

TEST(PopenExecGetoutput, SaysWhenTheCommandCannotBeStarted) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        char* output;
        const int code = popen_exec_getoutput("echo x", &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_MESSAGE(outcome, kReturned, std::string(kNotStarted) + kEmfile);
    EXPECT_EQ(outcome.result, "-1|(null)");
}

TEST(PopenExecGetoutput, SaysWhichMemoryIsMissing) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    // The first allocation is the buffer, the next are popen's own, the last is the buffer's
    // growth.
    int nth = 1;
    const auto run_without = [&] {
        return isolated::run([&] {
            // A shell that writes more than a pipe holds, and would notice that nobody reads.
            const std::string command =
                "x=$(printf '%01000d' 0); for i in $(seq 200); do echo $x; done; exit 5";
            const Leftovers leftovers;
            fault::arm(fault::Call::allocate, nth, ENOMEM);
            char* output;
            const int code = popen_exec_getoutput(command.c_str(), &output);
            return std::to_string(code) + "|" + take(output) + leftovers.found();
        });
    };
    Outcome outcome = run_without();
    EXPECT_MESSAGE(outcome, kReturned, std::string(kNoFirstBuffer) + kEnomem);
    EXPECT_EQ(outcome.result, "-1|(null)");

    for (nth = 2; (outcome = run_without()).out == std::string(kNotStarted) + kEnomem; ++nth) {
        EXPECT_EQ(outcome.out, outcome.err);
        EXPECT_EQ(outcome.result, "-1|(null)");
    }
    EXPECT_MESSAGE(outcome, kReturned, std::string(kOutputDropped) + kEnomem);
    EXPECT_EQ(outcome.result, "5|");
    EXPECT_GT(nth, 2) << "popen allocates too";
}

Outcome popen_exec_of(const std::string& command) {
    return isolated::run([&] {
        const Leftovers leftovers;
        const int code = popen_exec(command.c_str());
        return std::to_string(code) + leftovers.found();
    });
}

TEST(PopenExec, IsSilentAboutSuccess) {
    const Outcome outcome = popen_exec_of("echo x");
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0");
}

TEST(PopenExec, ReportsAFailureWithTheOutput) {
    const Outcome outcome = popen_exec_of("echo text; exit 3");
    EXPECT_MESSAGE(outcome, kReturned, "prog: popen_exec: command failed code: 3 , text\n\n");
    EXPECT_EQ(outcome.result, "3");
}

TEST(PopenExec, ReportsAFailureWithoutOutput) {
    const Outcome outcome = popen_exec_of("exit 255");
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: popen_exec: command failed code: 255 , error: none\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(PopenExec, FreesTheOutput) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(kept_by_calls([] { popen_exec("head -c 50000 /dev/zero; exit 3"); }));
    });
    EXPECT_EQ(outcome.result, "0");
}

TEST(PopenExec, ReportsACommandThatCannotBeStarted) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        return std::to_string(popen_exec("echo x"));
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string(kNotStarted) + kEmfile +
                       "prog: popen_exec: failed to execute command: echo x\n" + kEmfile);
    EXPECT_EQ(outcome.result, "-1");
}

Outcome with_input(const std::string& command, const std::string& input) {
    return isolated::run([&] {
        const Leftovers leftovers;
        const int code = popen_exec_with_input(command.c_str(), input.c_str());
        return std::to_string(code) + leftovers.found();
    });
}

TEST(PopenExecWithInput, GivesTheInputToTheCommand) {
    const Outcome outcome = with_input("cat; exit 3", "a\nb");
    EXPECT_OUTCOME(outcome, kReturned, "a\nb", "");
    EXPECT_EQ(outcome.result, "3");
}

TEST(PopenExecWithInput, AnEmptyInputIsAnEndOfFile) {
    const Outcome outcome = with_input("wc -c", "");
    EXPECT_OUTCOME(outcome, kReturned, "0\n", "");
    EXPECT_EQ(outcome.result, "0");
}

TEST(PopenExecWithInput, WritesMoreThanAPipeHolds) {
    EXPECT_OUTCOME(with_input("sleep 0.1; wc -c", std::string(3000000, 'x')), kReturned,
                   "3000000\n", "");
}

TEST(PopenExecWithInput, WritesOnAfterSignals) {
    // The first signal meets a write that has filled the pipe, the second one that waits.
    const Outcome outcome = isolated::run([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        const std::string input(1000000, 'x');
        return std::to_string(popen_exec_with_input(
            "for i in 1 2; do sleep 0.1; kill -USR1 $PPID; done; sleep 0.1; wc -c", input.c_str()));
    });
    EXPECT_OUTCOME(outcome, kReturned, "1000000\n", "");
    EXPECT_EQ(outcome.result, "0");
}

TEST(PopenExecWithInput, ReportsACommandThatDoesNotTakeAll) {
    const Outcome outcome = with_input("head -c 1 >/dev/null; exit 0", std::string(1000000, 'x'));
    EXPECT_EQ(outcome.out, outcome.err);
    EXPECT_TRUE(std::regex_match(
        outcome.out, std::regex("prog: Failed to execute command with input: only [0-9]{4,6} of "
                                "1000000 bytes were written\\.\nSystem error 32: Broken pipe\n")))
        << describe(outcome);
    EXPECT_EQ(outcome.result, "-1");
}

TEST(PopenExecWithInput, IsNotEndedBySigpipeAlsoWhereTheCallerDoesNotIgnoreIt) {
    const Outcome outcome = isolated::run([] {
        std::signal(SIGPIPE, SIG_DFL);
        const std::string input(1000000, 'x');
        const int code = popen_exec_with_input("exit 0", input.c_str());
        struct sigaction action;
        sigaction(SIGPIPE, nullptr, &action);
        return std::to_string(code) + (action.sa_handler == SIG_DFL ? " default" : " changed");
    });
    EXPECT_EQ(outcome.result, "-1 default") << describe(outcome);
}

TEST(PopenExecWithInput, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(with_input(kSigpipeScript, "").result, "0");
}

TEST(PopenExecWithInput, SaysWhenTheCommandCannotBeStarted) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        return std::to_string(popen_exec_with_input("cat", "x"));
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: Failed to execute command with input: either pipe, fork or "
                               "memory allocation failed.") +
                       kEmfile);
    EXPECT_EQ(outcome.result, "-1");
}

} // namespace
