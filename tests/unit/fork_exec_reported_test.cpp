#include "lib/util/fork_exec.h"

#include "support/children.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace children;
using isolated::kReturned;
using isolated::Outcome;

constexpr char kEmfile[] = "\nSystem error 24: Too many open files\n";
constexpr char kEnomem[] = "\nSystem error 12: Cannot allocate memory\n";
constexpr char kEagain[] = "\nSystem error 11: Resource temporarily unavailable\n";
constexpr char kEchild[] = "\nSystem error 10: No child processes\n";

// Runs a script by fork_execv_fd; the result is its result, standard output and leftovers.
Outcome with_fds(const std::string& text, const std::string& input = "") {
    return isolated::run([&] {
        const int in = file_with(input);
        const int out = file_with("");
        const Leftovers leftovers;
        const int code = fork_execv_fd(in, out, kShell, script(text).get());
        const std::string left = leftovers.found();
        return std::to_string(code) + "|" + content_of(out) + "|" + left;
    });
}

TEST(ForkExecvFd, ConnectsInputAndOutputAndLogsErrors) {
    const Outcome outcome = with_fds("cat; echo problem >&2; exit 3", "input\n");
    EXPECT_MESSAGE(outcome, kReturned, "prog: problem\n");
    EXPECT_EQ(outcome.result, "3|input\n|");
}

TEST(ForkExecvFd, IsSilentWhenTheChildIs) {
    const Outcome outcome = with_fds("exit 0");
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0||");
}

TEST(ForkExecvFd, LogsErrorsAsTheyArrive) {
    EXPECT_MESSAGE(with_fds("printf a >&2; sleep 0.2; printf b >&2"), kReturned,
                   "prog: a\nprog: b\n");
}

TEST(ForkExecvFd, LogsErrorsInPiecesOf4095Bytes) {
    const std::string a(4095, 'a');
    EXPECT_MESSAGE(with_fds("cat >&2", a), kReturned, "prog: " + a + "\n");
    EXPECT_MESSAGE(with_fds("cat >&2", a + "b"), kReturned, "prog: " + a + "\nprog: b\n");
    EXPECT_MESSAGE(with_fds("cat >&2", a + std::string(4095, 'b') + "c"), kReturned,
                   "prog: " + a + "\nprog: " + std::string(4095, 'b') + "\nprog: c\n");
}

TEST(ForkExecvFd, DoesNotTakeErrorsForFormats) {
    EXPECT_MESSAGE(with_fds("echo '%s%n' >&2"), kReturned, "prog: %s%n\n");
}

TEST(ForkExecvFd, TakesManyErrors) {
    const Outcome outcome = with_fds("head -c 1000000 /dev/zero | tr '\\0' '\\n' >&2");
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1000000);
    EXPECT_EQ(outcome.result, "0||");
}

TEST(ForkExecvFd, RefusesStandardInputAndStandardOutputInTheirPlace) {
    const int refused[][2] = {{0, 5}, {5, 1}, {0, 1}, {0, -1}, {-1, 1}};
    for (const auto& fds : refused) {
        const Outcome outcome = isolated::run([&] {
            return std::to_string(fork_execv_fd(fds[0], fds[1], kShell, script("exit 0").get()));
        });
        EXPECT_MESSAGE(outcome, kReturned,
                       "prog: values 0,1,2 not allowed for variables fd_in & fd_out\n");
        EXPECT_EQ(outcome.result, "-1");
    }
}

TEST(ForkExecvFd, TakesOtherStandardDescriptors) {
    // What the caller has on 0 becomes standard output.
    const Outcome outcome = isolated::run([] {
        dup2(file_with(""), STDIN_FILENO);
        const int in = file_with("from the input");
        const int code = fork_execv_fd(in, STDIN_FILENO, kShell, script("cat").get());
        return std::to_string(code) + "|" + content_of(STDIN_FILENO);
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0|from the input");
    EXPECT_OUTCOME(isolated::run([] {
                       return std::to_string(fork_execv_fd(file_with("x"), STDERR_FILENO, kShell,
                                                           script("cat").get()));
                   }),
                   kReturned, "", "x");
}

TEST(ForkExecvFd, TakesOneSocketForBoth) {
    const Outcome outcome = isolated::run([] {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
            return std::string("no socket");
        if (write(ends[1], "hello\n", 6) != 6)
            return std::string("no write");
        const int code =
            fork_execv_fd(ends[0], ends[0], kShell, script("read x; echo \"got $x\"").get());
        char answer[100];
        const ssize_t length = read(ends[1], answer, sizeof answer);
        return std::to_string(code) + "|" +
               std::string(answer, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    });
    EXPECT_EQ(outcome.result, "0|got hello\n");
}

TEST(ForkExecvFd, MinusOneIsDevNull) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(
            fork_execv_fd(-1, -1, kShell, script("readlink /proc/$$/fd/0 >&2; echo x").get()));
    });
    EXPECT_MESSAGE(outcome, kReturned, "prog: /dev/null\n");
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExecvFd, TheChildHasNoOtherDescriptor) {
    const Outcome outcome = isolated::run([] {
        dup2(STDIN_FILENO, 40);
        return std::to_string(fork_execv_fd(
            -1, -1, kShell, script("for d in /proc/self/fd/*; do echo ${d##*/}; done >&2").get()));
    });
    EXPECT_EQ(outcome.err.find("40"), std::string::npos) << describe(outcome);
}

TEST(ForkExecvFd, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(with_fds(kSigpipeScript).result, "-1||");
}

// The process id that a message names after this text.
pid_t pid_in(const std::string& message, const std::string& before) {
    const size_t found = message.find(before);
    return found == std::string::npos ? -1 : std::atoi(message.c_str() + found + before.size());
}

TEST(ForkExecvFd, ReportsAKilledChild) {
    const Outcome outcome = with_fds("echo $$; kill -9 $$");
    const std::string pid = outcome.result.substr(3, outcome.result.find('\n') - 3);
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: The child process with pid " + pid + " killed by signal 9\n");
    EXPECT_EQ(outcome.result, "-1|" + pid + "\n|");
}

TEST(ForkExecvFd, ReportsAStoppedChildAndLeavesIt) {
    const Outcome outcome = isolated::run([] {
        const int out = file_with("");
        const int code =
            fork_execv_fd(-1, out, kShell, script("echo $$; exec 2>&-; kill -STOP $$").get());
        const std::string pid = content_of(out);
        kill(std::atoi(pid.c_str()), SIGKILL);
        return std::to_string(code) + "|" + pid + std::to_string(wait_for(std::atoi(pid.c_str())));
    });
    const std::string pid = outcome.result.substr(3, outcome.result.find('\n') - 3);
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: The child process with pid " + pid + " stopped by signal 19\n");
    EXPECT_EQ(outcome.result, "-1|" + pid + "\n-9");
}

TEST(ForkExecvFd, ReportsAFailedWait) {
    const Outcome outcome = isolated::run([] {
        std::signal(SIGCHLD, SIG_IGN);
        return std::to_string(fork_execv_fd(-1, -1, kShell, script("exit 0").get()));
    });
    const std::string before = "prog: Error occured during waiting the child process with pid: ";
    EXPECT_MESSAGE(outcome, kReturned,
                   before + std::to_string(pid_in(outcome.out, before)) + ": No child processes\n" +
                       kEchild);
    EXPECT_EQ(outcome.result, "-1");
}

TEST(ForkExecvFd, ReportsAFailedPipe) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        return std::to_string(fork_execv_fd(-1, -1, kShell, script("exit 0").get()));
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: fork_exec_fd pipe(): Too many open files") + kEmfile);
    EXPECT_EQ(outcome.result, "-1");
}

TEST(ForkExecvFd, ReportsAFailedFork) {
    const Outcome outcome = isolated::run([] {
        const Arguments argv = script("exit 0");
        const Leftovers leftovers;
        fault::arm(fault::Call::fork, 1, EAGAIN);
        const int code = fork_execv_fd(-1, -1, kShell, argv.get());
        return std::to_string(code) + leftovers.found();
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: Error occured during fork():\n"
                               "Resource temporarily unavailable") +
                       kEagain);
    EXPECT_EQ(outcome.result, "-1");
}

TEST(ForkExecvFd, ReportsAProgramThatCannotBeExecuted) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(fork_execv_fd(-1, -1, "/no/such/program", script("").get())); });
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: Error occured during execv():\nNo such file or directory.\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvFd, ExplainsAnInvalidVector) {
    const Outcome outcome = isolated::run([] {
        char name[] = "sh";
        char* const argv[] = {name, reinterpret_cast<char*>(1), nullptr};
        return std::to_string(fork_execv_fd(-1, -1, kShell, argv));
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: Error occured during execv():\nBad address, possible reason - NULL "
                   "parameter is absent in util_exec(path, arg1, arg2, NULL) call.\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvFd, ADescriptorThatIsNotOpenIsStatus255) {
    const int sets[][2] = {{999, -1}, {-1, 999}, {999, 999}};
    for (const auto& set : sets) {
        const Outcome outcome = isolated::run([&] {
            return std::to_string(fork_execv_fd(set[0], set[1], kShell, script("exit 0").get()));
        });
        // Its pipe is not in place yet, so it says so where the caller does.
        EXPECT_OUTCOME(outcome, kReturned, "", "fork_execv: dup() failed: Bad file descriptor\n");
        EXPECT_EQ(outcome.result, "255");
    }
}

// Runs a program by fork_execv_getoutput: its result, output and leftovers.
Outcome getoutput(const char* path, const Arguments& argv) {
    return isolated::run([&] {
        const Leftovers leftovers;
        char* output;
        const int code = fork_execv_getoutput(path, argv.get(), &output);
        return std::to_string(code) + "|" + take(output) + "|" + leftovers.found();
    });
}

TEST(ForkExecvGetoutput, CollectsBothOutputsInOrder) {
    const Outcome outcome = getoutput(kShell, script("echo one; echo error >&2; echo two; exit 0"));
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0|one\nerror\ntwo\n|");
}

TEST(ForkExecvGetoutput, NoOutputIsAnEmptyText) {
    EXPECT_EQ(getoutput(kShell, script("exit 0")).result, "0||");
}

TEST(ForkExecvGetoutput, CollectsAnyLength) {
    const Outcome outcome =
        getoutput(kShell, script("head -c 1000000 /dev/zero | tr '\\0' a; exec >&- 2>&-; exit 0"));
    EXPECT_TRUE(outcome.result == "0|" + std::string(1000000, 'a') + "|") << outcome.result.size();
}

TEST(ForkExecvGetoutput, LeavesStandardInput) {
    const Outcome outcome = isolated::run([] {
        dup2(file_with("input"), STDIN_FILENO);
        char* output;
        const int code = fork_execv_getoutput(kShell, script("cat").get(), &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_EQ(outcome.result, "0|input");
}

TEST(ForkExecvGetoutput, WorksWithoutStandardDescriptors) {
    const Outcome outcome = isolated::run([] {
        for (int fd = 0; fd < 3; ++fd)
            close(fd);
        char* output;
        const int code = fork_execv_getoutput(kShell, script("echo o; echo e >&2").get(), &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_EQ(outcome.result, "0|o\ne\n");
}

TEST(ForkExecvGetoutput, ReportsAFailedUtility) {
    const Outcome outcome = getoutput(kShell, script("echo o; echo e >&2; exit 3"));
    EXPECT_MESSAGE(outcome, kReturned, "prog: utility /bin/sh failed (result=3):\no\ne\n");
    EXPECT_EQ(outcome.result, "3|o\ne\n|");
}

TEST(ForkExecvGetoutput, ReportsACrashedUtility) {
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        const std::string number = std::to_string(signal);
        // Without a core file the wait status is the signal's number.
        const Outcome outcome =
            getoutput(kShell, script("ulimit -c 0; echo x; kill -" + number + " $$"));
        EXPECT_MESSAGE(outcome, kReturned,
                       "prog: utility /bin/sh crashed (status " + number + "):\nx\n");
        EXPECT_EQ(outcome.result, "-1|x\n|");
    }
}

TEST(ForkExecvGetoutput, ReportsAKilledUtility) {
    const Outcome outcome = getoutput(kShell, script("echo x; kill -15 $$"));
    EXPECT_MESSAGE(outcome, kReturned, "prog: utility /bin/sh killed (signal 15):\nx\n");
    EXPECT_EQ(outcome.result, "-1|x\n|");
}

TEST(ForkExecvGetoutput, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(getoutput(kShell, script(kSigpipeScript)).result, "-1||");
}

TEST(ForkExecvGetoutput, ReportsAProgramThatCannotBeExecuted) {
    const Outcome outcome = getoutput("/no/such/program", script(""));
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: utility /no/such/program failed (result=255):\n"
                   "Cannot exec /no/such/program:\nNo such file or directory\n");
    EXPECT_EQ(outcome.result, "255|Cannot exec /no/such/program:\nNo such file or directory|");
}

TEST(ForkExecvGetoutput, ReportsAFailedPipe) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        char* output;
        const int code = fork_execv_getoutput(kShell, script("exit 0").get(), &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: fork_execvv_getoutput pipe():\nToo many open files") +
                       kEmfile);
    EXPECT_EQ(outcome.result, "-1|(null)");
}

// getoutput with a fault.
Outcome getoutput_with(fault::Call call, int error, const std::string& text) {
    return isolated::run([&] {
        const Arguments argv = script(text);
        const Leftovers leftovers;
        fault::arm(call, 1, error);
        char* output;
        const int code = fork_execv_getoutput(kShell, argv.get(), &output);
        return std::to_string(code) + "|" + take(output) + "|" + leftovers.found();
    });
}

TEST(ForkExecvGetoutput, ReportsAFailedFork) {
    const Outcome outcome = getoutput_with(fault::Call::fork, EAGAIN, "exit 0");
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: Cannot fork():\nResource temporarily unavailable") + kEagain);
    EXPECT_EQ(outcome.result, "-1|(null)|");
}

TEST(ForkExecvGetoutput, ReportsMissingMemoryAndWaitsForTheUtility) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    const Outcome outcome =
        getoutput_with(fault::Call::allocate, ENOMEM, "while echo x; do :; done");
    EXPECT_MESSAGE(outcome, kReturned,
                   std::string("prog: Cannot allocate buffer:\nCannot allocate memory") + kEnomem);
    EXPECT_EQ(outcome.result, "-1|(null)|");
}

TEST(ForkExecvGetoutput, ReportsAFailedRead) {
    const Outcome outcome = getoutput_with(fault::Call::read, EIO, "while echo x; do :; done");
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: Cannot read child output:\nInput/output error\n"
                   "System error 5: Input/output error\n");
    EXPECT_EQ(outcome.result, "-1|(null)|");
}

TEST(ForkExecvGetoutput, ReportsAUtilityWithoutRoomForItsDescriptors) {
    const Outcome outcome = isolated::run([] {
        const Arguments argv = script("exit 0");
        char* output;
        fault::arm(fault::Call::fcntl, 1, EMFILE);
        const int code = fork_execv_getoutput(kShell, argv.get(), &output);
        return std::to_string(code) + "|" + take(output);
    });
    // Its pipe is not in place yet, so it says so where the caller does.
    EXPECT_OUTCOME(outcome, kReturned, "prog: utility /bin/sh failed (result=255):\n",
                   "fork_execv: dup() failed: Too many open files\n"
                   "prog: utility /bin/sh failed (result=255):\n");
    EXPECT_EQ(outcome.result, "255|");
}

TEST(ForkExecvGetoutput, ReportsAFailedWait) {
    const Outcome outcome = isolated::run([] {
        std::signal(SIGCHLD, SIG_IGN);
        char* output;
        const int code = fork_execv_getoutput(kShell, script("echo x").get(), &output);
        return std::to_string(code) + "|" + take(output);
    });
    EXPECT_MESSAGE(outcome, kReturned, std::string("prog: error:\nNo child processes") + kEchild);
    EXPECT_EQ(outcome.result, "-1|(null)");
}

} // namespace
