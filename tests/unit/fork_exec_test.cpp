#include "lib/util/fork_exec.h"

#include "support/children.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace children;
using isolated::kReturned;
using isolated::Outcome;

constexpr char kOpenDescriptors[] = "for d in /proc/self/fd/*; do echo ${d##*/}; done";
// The shell reads the folder itself on 3.
constexpr char kOnlyStandard[] = "0\n1\n2\n3\n";
constexpr char kStandardFiles[] = "for d in 0 1 2; do readlink /proc/self/fd/$d; done";
// Exits with 5 when all three are /dev/null, open for reading and writing.
constexpr char kAllNull[] =
    "for d in 0 1 2; do test \"$(readlink /proc/$$/fd/$d)\" = /dev/null || exit 1; done; "
    "cat <&1 && cat <&2 && echo x >&0 && exit 5";

int run_pipes(int in, int out, int err, const std::string& text) {
    return wait_for(fork_execv_pipes(in, out, err, kShell, script(text).get()));
}

Outcome pipes(int in, int out, int err, const std::string& text) {
    return isolated::run([&] { return std::to_string(run_pipes(in, out, err, text)); });
}

TEST(ForkExecvPipes, LeavesTheStandardDescriptorsInTheirPlace) {
    const Outcome outcome = isolated::run([] {
        dup2(file_with("input\n"), STDIN_FILENO);
        return std::to_string(
            run_pipes(0, 1, 2, std::string("cat; echo e >&2; ") + kStandardFiles));
    });
    EXPECT_OUTCOME(outcome, kReturned,
                   "input\n/memfd:content (deleted)\n/memfd:out (deleted)\n/memfd:err (deleted)\n",
                   "e\n");
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExecvPipes, ClosesEveryOtherDescriptor) {
    const Outcome outcome = isolated::run([] {
        for (const int fd : {10, 11, 77, 1000})
            dup2(STDIN_FILENO, fd);
        return std::to_string(run_pipes(0, 1, 2, kOpenDescriptors));
    });
    EXPECT_OUTCOME(outcome, kReturned, kOnlyStandard, "");
}

TEST(ForkExecvPipes, ClosesEveryOtherDescriptorOnAKernelWithoutCloseRange) {
    const Outcome outcome = isolated::run([] {
        dup2(STDIN_FILENO, 10);
        dup2(STDIN_FILENO, getdtablesize() - 1);
        fault::arm(fault::Call::close_range, 1, ENOSYS);
        return std::to_string(run_pipes(0, 1, 2, kOpenDescriptors));
    });
    EXPECT_OUTCOME(outcome, kReturned, kOnlyStandard, "");
}

TEST(ForkExecvPipes, MinusOneIsDevNull) {
    EXPECT_EQ(pipes(-1, -1, -1, kAllNull).result, "5");
    EXPECT_OUTCOME(pipes(-1, 1, 2, kStandardFiles), kReturned,
                   "/dev/null\n/memfd:out (deleted)\n/memfd:err (deleted)\n", "");
}

TEST(ForkExecvPipes, MinusOneIsDevNullAlsoWhereTheDescriptorWasClosed) {
    const Outcome outcome = isolated::run([] {
        for (int fd = 0; fd < 3; ++fd)
            close(fd);
        return std::to_string(run_pipes(-1, -1, -1, kAllNull));
    });
    EXPECT_EQ(outcome.result, "5");
}

TEST(ForkExecvPipes, MovesTheDescriptorsAndKeepsTheParentsOpen) {
    const Outcome outcome = isolated::run([] {
        const int in = file_with("abc", true);
        const int out = file_with("", true);
        const int err = file_with("", true);
        const int status =
            run_pipes(in, out, err, std::string("cat; echo error >&2; ") + kOpenDescriptors);
        lseek(in, 0, SEEK_SET);
        return std::to_string(status) + "|" + content_of(in) + "|" + content_of(out) + "|" +
               content_of(err);
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, std::string("0|abc|abc") + kOnlyStandard + "|error\n");
}

TEST(ForkExecvPipes, PlacesInOrderAndClosesEachSource) {
    // Standard output goes to 0, standard error to 1, /dev/null to 2.
    const Outcome outcome = pipes(1, 2, -1, kStandardFiles);
    EXPECT_OUTCOME(outcome, kReturned, "",
                   "/memfd:out (deleted)\n/memfd:err (deleted)\n/dev/null\n");
}

TEST(ForkExecvPipes, OneDescriptorCannotBePlacedTwice) {
    const Outcome outcome = isolated::run([] {
        const int file = file_with("");
        return std::to_string(run_pipes(-1, file, file, "exit 0"));
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "fork_execv: dup() failed: Bad file descriptor\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvPipes, StopsAtTheFirstDescriptorThatCannotBePlaced) {
    constexpr int kNotOpen = 999;
    const int sets[][3] = {{kNotOpen, 1, 2}, {0, kNotOpen, 2}, {0, 1, kNotOpen}};
    for (const auto& set : sets) {
        const Outcome outcome = pipes(set[0], set[1], set[2], "exit 0");
        EXPECT_OUTCOME(outcome, kReturned, "", "fork_execv: dup() failed: Bad file descriptor\n");
        EXPECT_EQ(outcome.result, "255");
    }
}

TEST(ForkExecvPipes, SaysWhenDevNullCannotBeOpened) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        return std::to_string(run_pipes(-1, 1, 2, "exit 0"));
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "fork_execv: dup() failed: Too many open files\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvPipes, ReturnsTheProcessIdAlsoForAMissingProgram) {
    const Outcome outcome = isolated::run([] {
        const int pid = fork_execv_pipes(0, 1, 2, "/no/such/program", script("").get());
        return std::to_string(pid > 0) + " " + std::to_string(wait_for(pid));
    });
    EXPECT_OUTCOME(outcome, kReturned, "",
                   "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
    EXPECT_EQ(outcome.result, "1 255");
}

TEST(ForkExecvPipes, SaysWhyAFileCannotBeExecuted) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(wait_for(fork_execl_pipes(0, 1, 2, "/", "/", nullptr))); });
    EXPECT_OUTCOME(outcome, kReturned, "", "fork_execv: execv(\"/\") failed: Permission denied\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvPipes, DoesNotSearchPath) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(wait_for(fork_execl_pipes(0, 1, 2, "true", "true", nullptr)));
    });
    EXPECT_OUTCOME(outcome, kReturned, "",
                   "fork_execv: execv(\"true\") failed: No such file or directory\n");
}

TEST(ForkExecvPipes, AFailedChildDoesNotRepeatWhatTheParentHasBuffered) {
    const Outcome outcome = isolated::run([] {
        std::printf("once");
        return std::to_string(
            wait_for(fork_execv_pipes(0, 1, 2, "/no/such/program", script("").get())));
    });
    EXPECT_EQ(outcome.out, "once");
}

TEST(ForkExecvPipes, GivesTheProgramItsArgumentsAndTheEnvironment) {
    const Outcome outcome = isolated::run([] {
        setenv("QRX_TEST_VALUE", "from the caller", 1);
        const Arguments argv{"sh", "-c", "echo \"$0|$1|$2|$#|$QRX_TEST_VALUE\"", "name", "a b", ""};
        return std::to_string(wait_for(fork_execv_pipes(0, 1, 2, kShell, argv.get())));
    });
    EXPECT_OUTCOME(outcome, kReturned, "name|a b||2|from the caller\n", "");
}

TEST(ForkExecvPipes, DoesNotWait) {
    const Outcome outcome = isolated::run([] {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1)
            return std::string("no pipe");
        const int pid = fork_execv_pipes(ends[0], 1, 2, kShell, script("read x; exit $x").get());
        if (waitpid(pid, nullptr, WNOHANG) != 0)
            return std::string("ended early");
        if (write(ends[1], "9\n", 2) != 2)
            return std::string("no write");
        return std::to_string(wait_for(pid));
    });
    EXPECT_EQ(outcome.result, "9");
}

TEST(ForkExecvPipes, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(pipes(0, 1, 2, kSigpipeScript).result, std::to_string(-SIGPIPE));
}

TEST(ForkExecvPipes, AFailedForkEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::fork, 1, EAGAIN);
                       fork_execv_pipes(0, 1, 2, kShell, script("exit 0").get());
                       return std::string();
                   }),
                   1,
                   "prog: fork_execv_pipes: fork() failed\n"
                   "System error 11: Resource temporarily unavailable\n");
}

TEST(ForkExeclPipes, TakesItsArgumentsAsAList) {
    const Outcome outcome = isolated::run([] {
        const int pid = fork_execl_pipes(-1, 1, 2, kShell, "sh", "-c", "echo \"$0|$1|$#\"", "name",
                                         "a", "b", nullptr);
        return std::to_string(wait_for(pid));
    });
    EXPECT_OUTCOME(outcome, kReturned, "name|a|2\n", "");
    EXPECT_EQ(outcome.result, "0");
}

template <size_t... I> int count_listed(std::index_sequence<I...>) {
    return wait_for(fork_execl_pipes(0, 1, 2, kShell, "sh", "-c", "echo $#; exit 3", "name",
                                     ((void)I, "x")..., nullptr));
}

TEST(ForkExeclPipes, TakesAnyNumberOfArguments) {
    EXPECT_OUTCOME(
        isolated::run([] { return std::to_string(count_listed(std::make_index_sequence<500>())); }),
        kReturned, "500\n", "");
}

TEST(ForkExeclPipes, AnEmptyListIsAnEmptyVector) {
    // The kernel makes one empty argument of it since Linux 5.18 (execve(2)).
    const Outcome outcome = isolated::run([] {
        const int in = file_with("tr '\\0' '|' </proc/$$/cmdline; echo \"[$#]\"");
        const char* const no_argument = nullptr;
        return std::to_string(wait_for(fork_execl_pipes(in, 1, 2, kShell, no_argument, nullptr)));
    });
    EXPECT_TRUE(outcome.out == "|[0]\n" || outcome.out == "[0]\n") << describe(outcome);
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExeclPipes, WithoutMemoryForTheVectorEndsTheProcess) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       fork_execl_pipes(0, 1, 2, kShell, "sh", "-c", "echo started", nullptr);
                       return std::string();
                   }),
                   1,
                   "prog: malloc() failed: Cannot allocate memory\n"
                   "System error 12: Cannot allocate memory\n");
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool is_null_device(int fd) {
    struct stat file, null;
    return fstat(fd, &file) == 0 && stat("/dev/null", &null) == 0 && file.st_rdev == null.st_rdev &&
           (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR;
}

TEST(Dup2Custom, LeavesADescriptorInItsPlace) {
    const int fd = file_with("");
    EXPECT_EQ(dup2_custom(fd, fd), fd);
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST(Dup2Custom, MovesADescriptor) {
    const int fd = file_with("abc");
    EXPECT_EQ(dup2_custom(fd, 70), 70);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(fcntl(70, F_GETFD), 0);
    EXPECT_EQ(content_of(70), "abc");
}

TEST(Dup2Custom, MinusOneOpensDevNull) {
    const Leftovers leftovers;
    EXPECT_EQ(dup2_custom(-1, 70), 70);
    EXPECT_TRUE(is_null_device(70));
    close(70);
    EXPECT_EQ(leftovers.found(), "");
}

TEST(Dup2Custom, DevNullThatIsOpenedInItsPlaceStaysThere) {
    const int target = file_with("");
    close(target);
    EXPECT_EQ(dup2_custom(-1, target), target);
    EXPECT_TRUE(is_null_device(target));
    close(target);
}

TEST(Dup2Custom, FailsForADescriptorThatIsNotOpen) {
    errno = 0;
    EXPECT_EQ(dup2_custom(999, 70), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(is_open(70));
}

TEST(Dup2Custom, ClosesItsSourceAlsoWhenItFails) {
    const int fd = file_with("");
    EXPECT_EQ(dup2_custom(fd, -5), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(is_open(fd));
}

TEST(Dup2Custom, FailsWhenDevNullCannotBeOpened) {
    const Outcome outcome = isolated::run([] {
        exhaust_descriptors();
        const int result = dup2_custom(-1, 0);
        return std::to_string(result) + " " + std::to_string(errno);
    });
    EXPECT_EQ(outcome.result, "-1 " + std::to_string(EMFILE));
}

TEST(CloseFd, ClosesAndForgets) {
    int fd = file_with("");
    const int number = fd;
    EXPECT_EQ(close_fd(&fd), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(is_open(number));
}

TEST(CloseFd, GivesTheResultOfClose) {
    int fd = 999;
    EXPECT_EQ(close_fd(&fd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(close_fd(&fd), -1);
}

// All results of fork_execv and do_exec, with what is left behind.
Outcome result_of(const std::function<int()>& body) {
    return isolated::run([&] {
        const Leftovers leftovers;
        const int result = body();
        return std::to_string(result) + leftovers.found();
    });
}

TEST(ForkExecv, ReturnsTheExitStatus) {
    for (const char* status : {"0", "1", "200", "255"}) {
        const std::string text = std::string("exit ") + status;
        const Outcome outcome =
            result_of([&] { return fork_execv(kShell, "-c", text.c_str(), nullptr); });
        EXPECT_OUTCOME(outcome, kReturned, "", "");
        EXPECT_EQ(outcome.result, status);
    }
}

TEST(ForkExecv, ReturnsOneForASignal) {
    EXPECT_EQ(result_of([] { return fork_execv(kShell, "-c", "kill -9 $$", nullptr); }).result,
              "1");
}

TEST(ForkExecv, GivesDevNullOnAllStandardDescriptors) {
    const Outcome outcome = isolated::run([] {
        dup2(file_with("x"), STDIN_FILENO);
        return std::to_string(fork_execv(kShell, "-c", kAllNull, nullptr));
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "5");
}

TEST(ForkExecv, ArgumentZeroIsThePath) {
    const Outcome outcome = result_of([] {
        return fork_execv(
            kShell, "-c",
            "test \"$(tr '\\0' '\\n' </proc/$$/cmdline | head -n 1)\" = /bin/sh && exit 8",
            nullptr);
    });
    EXPECT_EQ(outcome.result, "8");
}

template <size_t... I> int count_further(std::index_sequence<I...>) {
    return fork_execv(kShell, "-c", "exit $#", "name", ((void)I, "x")..., nullptr);
}

TEST(ForkExecv, TakesNinetyNineArguments) {
    // Three of the 99 come before those that the script counts.
    EXPECT_EQ(result_of([] { return count_further(std::make_index_sequence<95>()); }).result, "95");
    EXPECT_EQ(result_of([] { return count_further(std::make_index_sequence<96>()); }).result, "96");
    EXPECT_EQ(result_of([] { return count_further(std::make_index_sequence<97>()); }).result, "96");
    EXPECT_EQ(result_of([] { return count_further(std::make_index_sequence<250>()); }).result,
              "96");
}

TEST(ForkExecv, AMissingProgramIsStatus255AndSilent) {
    const Outcome outcome = result_of([] {
        std::printf("once");
        return fork_execv("/no/such/program", "x", nullptr);
    });
    EXPECT_OUTCOME(outcome, kReturned, "once", "");
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecv, WaitsForItsOwnChildOnly) {
    const Outcome outcome = isolated::run([] {
        const int other = fork_execv_pipes(0, 1, 2, kShell, script("exit 4").get());
        siginfo_t ended;
        waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT);
        const int result = fork_execv(kShell, "-c", "exit 3", nullptr);
        return std::to_string(result) + " " + std::to_string(wait_for(other));
    });
    EXPECT_EQ(outcome.result, "3 4");
}

TEST(ForkExecv, FailsSilentlyWhenItCannotForkOrWait) {
    const Outcome no_fork = result_of([] {
        fault::arm(fault::Call::fork, 1, EAGAIN);
        return fork_execv(kShell, "-c", "exit 0", nullptr);
    });
    EXPECT_OUTCOME(no_fork, kReturned, "", "");
    EXPECT_EQ(no_fork.result, "-1");
    const Outcome no_wait = result_of([] {
        std::signal(SIGCHLD, SIG_IGN);
        return fork_execv(kShell, "-c", "exit 0", nullptr);
    });
    EXPECT_OUTCOME(no_wait, kReturned, "", "");
    EXPECT_EQ(no_wait.result, "-1");
}

TEST(ForkExecv, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(result_of([] { return fork_execv(kShell, "-c", kSigpipeScript, nullptr); }).result,
              "1");
}

TEST(ForkExecv, WaitsOnAfterASignal) {
    const Outcome outcome = isolated::run([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        const std::string text =
            "sleep 0.1; kill -USR1 " + std::to_string(getpid()) + "; sleep 0.1; exit 3";
        return std::to_string(fork_execv(kShell, "-c", text.c_str(), nullptr));
    });
    EXPECT_EQ(outcome.result, "3");
}

Outcome do_exec_of(const std::string& text) {
    return result_of([&] { return do_exec(kShell, script(text).get()); });
}

TEST(DoExec, ReturnsTheRawWaitStatus) {
    EXPECT_EQ(do_exec_of("exit 0").result, "0");
    EXPECT_EQ(do_exec_of("exit 3").result, std::to_string(0x300));
    EXPECT_EQ(do_exec_of("kill -9 $$").result, std::to_string(SIGKILL));
    EXPECT_EQ(do_exec_of(kSigpipeScript).result, std::to_string(SIGPIPE));
}

TEST(DoExec, TheChildHasTheStandardDescriptorsOfTheCaller) {
    EXPECT_OUTCOME(do_exec_of("echo o; echo e >&2"), kReturned, "o\n", "e\n");
}

TEST(DoExec, AMissingProgramIsStatus255AndSilent) {
    const Outcome outcome = result_of([] {
        std::printf("once");
        return do_exec("/no/such/program", script("").get());
    });
    EXPECT_OUTCOME(outcome, kReturned, "once", "");
    EXPECT_EQ(outcome.result, std::to_string(255 << 8));
}

TEST(DoExec, AFailedForkEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::fork, 1, ENOMEM);
                       do_exec(kShell, script("exit 0").get());
                       return std::string();
                   }),
                   1, "prog: Unable to fork\nSystem error 12: Cannot allocate memory\n");
}

TEST(DoExec, AFailedWaitGivesMinusOne) {
    const Outcome outcome = result_of([] {
        std::signal(SIGCHLD, SIG_IGN);
        return do_exec(kShell, script("exit 0").get());
    });
    EXPECT_EQ(outcome.result, "-1");
}

} // namespace
