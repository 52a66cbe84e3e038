#include "lib/util/fork_exec.h"

#include "support/children.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Called before a wait that doesn't block, to place something just before it.
static std::function<void(pid_t)> before_poll_of_child;

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    if ((options & WNOHANG) && before_poll_of_child)
        before_poll_of_child(pid);
    return static_cast<pid_t>(syscall(SYS_wait4, pid, status, options, nullptr));
}

namespace {

using namespace children;
using isolated::kReturned;
using isolated::Outcome;
using Clock = std::chrono::steady_clock;

constexpr char kEmfile[] = "\nSystem error 24: Too many open files\n";
constexpr char kEnomem[] = "\nSystem error 12: Cannot allocate memory\n";

// A buffer as read_to_buf takes it, and a pipe to read from.
struct Reader {
    int fd = -1;
    int write_end = -1;
    char* buf = nullptr;
    size_t size = 0;
    size_t used = 0;

    explicit Reader(size_t first_size = 0, size_t first_used = 0)
        : size(first_size), used(first_used) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1)
            std::abort();
        fd = ends[0];
        write_end = ends[1];
        if (size > 0) {
            buf = static_cast<char*>(std::malloc(size));
            std::memset(buf, '.', size);
        }
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() {
        std::free(buf);
        close(fd);
        close(write_end);
    }

    void put(const std::string& text) const {
        if (write(write_end, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            std::abort();
    }
    int read() { return read_to_buf(&fd, &buf, &size, &used); }
};

TEST(ReadToBuf, ReadsBehindWhatIsThere) {
    Reader reader;
    reader.put("abc");
    EXPECT_EQ(reader.read(), 3);
    reader.put("de");
    EXPECT_EQ(reader.read(), 2);
    EXPECT_EQ(std::string(reader.buf, reader.used), "abcde");
}

TEST(ReadToBuf, TheFirstBufferHas4096Bytes) {
    Reader reader;
    reader.put("a");
    reader.read();
    EXPECT_EQ(reader.size, 4096u);
}

TEST(ReadToBuf, GrowsWithFewerThan2048BytesFree) {
    const struct {
        size_t size, used, grown;
    } rows[] = {
        {4096, 2048, 4096},   // 2048 free
        {4096, 2049, 8192},   // 2047 free; not over 4096: by 4096
        {4097, 2049, 4097},   // 2048 free
        {4097, 2050, 8194},   // over 4096: twice
        {8192, 6144, 8192},   //
        {8192, 6145, 16384},  //
        {100, 0, 4196},       // small buffers grow too
        {2048, 0, 2048},      //
        {16384, 16383, 32768} //
    };
    for (const auto& row : rows) {
        Reader reader(row.size, row.used);
        reader.put("x");
        EXPECT_EQ(reader.read(), 1);
        EXPECT_EQ(reader.size, row.grown) << row.size << " with " << row.used << " used";
        EXPECT_EQ(reader.used, row.used + 1);
        EXPECT_EQ(std::string(reader.buf, reader.used), std::string(row.used, '.') + "x");
    }
}

TEST(ReadToBuf, LeavesOneByteFree) {
    Reader reader(4096, 2048);
    reader.put(std::string(5000, 'x'));
    EXPECT_EQ(reader.read(), 2047);
    EXPECT_EQ(reader.used, 4095u);
    EXPECT_EQ(reader.read(), 5000 - 2047);
}

TEST(ReadToBuf, ClosesAtTheEndOfInput) {
    Reader reader;
    const int fd = reader.fd;
    close_fd(&reader.write_end);
    EXPECT_EQ(reader.read(), 0);
    EXPECT_EQ(reader.fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(reader.used, 0u);
    EXPECT_NE(reader.buf, nullptr);
}

TEST(ReadToBuf, StaysOpenWhenNothingIsThereYet) {
    Reader reader;
    const int fd = reader.fd;
    EXPECT_EQ(reader.read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(reader.fd, fd);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
}

TEST(ReadToBuf, ResumesAfterASignal) {
    Reader reader;
    reader.put("abc");
    fault::arm(fault::Call::read, 1, EINTR, 3);
    EXPECT_EQ(reader.read(), 3);
}

TEST(ReadToBuf, ReportsAnErrorAndCloses) {
    const Outcome outcome = isolated::run([] {
        Reader reader;
        const int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        int fd = folder;
        const int result = read_to_buf(&fd, &reader.buf, &reader.size, &reader.used);
        return std::to_string(result) + " " + std::to_string(fd) +
               (fcntl(folder, F_GETFD) == -1 ? " closed" : " open");
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: fork_exec*: read(pipe) failed: Is a directory\n"
                   "\nSystem error 21: Is a directory\n");
    EXPECT_EQ(outcome.result, "-1 -1 closed");
}

TEST(ReadToBuf, WithoutMemoryEndsTheProcess) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    EXPECT_MESSAGE(isolated::run([] {
                       Reader reader;
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       reader.read();
                       return std::string();
                   }),
                   1, std::string("prog: Cannot allocate memory") + kEnomem);
}

// Result, standard output and standard error of a script.
std::string collect(const std::string& text) {
    char* out;
    char* err;
    const int code = fork_execv_getouterr(kShell, script(text).get(), &out, &err);
    return std::to_string(code) + "|" + take(out) + "|" + take(err) + "|";
}

// The same with what it left.
std::string getouterr(const std::string& text) {
    const Leftovers leftovers;
    const std::string result = collect(text);
    return result + leftovers.found();
}

// The same for a script that leaves a process behind which keeps the outputs open, and that prints
// the number of that process first. The process is ended and the number cut out.
std::string collect_beside_survivor(const std::string& text) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const std::string result = collect(text);
    const size_t number = result.find('|') + 1;
    const pid_t survivor = std::atoi(result.c_str() + number);
    if (kill(survivor, SIGKILL) == -1)
        return "no survivor: " + result;
    waitpid(survivor, nullptr, 0);
    return result.substr(0, number) + result.substr(result.find('\n') + 1);
}

Outcome isolated_getouterr(const std::string& text) {
    return isolated::run([&] { return getouterr(text); });
}

TEST(ForkExecvGetouterr, CollectsBothOutputs) {
    const Outcome outcome = isolated_getouterr("echo o1; echo e1 >&2; echo o2; exit 3");
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "3|o1\no2\n|e1\n|");
}

TEST(ForkExecvGetouterr, NoOutputIsTwoEmptyTexts) {
    EXPECT_EQ(isolated_getouterr("exit 0").result, "0|||");
}

TEST(ForkExecvGetouterr, CollectsTenMegabytesOfBothAtOnce) {
    const Outcome outcome = isolated::run([] {
        constexpr size_t kSize = 10 << 20;
        char* out;
        char* err;
        const int code =
            fork_execv_getouterr(kShell,
                                 script("head -c 10485760 /dev/zero | tr '\\0' o & "
                                        "head -c 10485760 /dev/zero | tr '\\0' e >&2; wait")
                                     .get(),
                                 &out, &err);
        const bool all = std::string(kSize, 'o') == out && std::string(kSize, 'e') == err;
        const std::string sizes =
            std::to_string(std::strlen(out)) + " " + std::to_string(std::strlen(err));
        std::free(out);
        std::free(err);
        return std::to_string(code) + (all ? " all" : " not all: " + sizes);
    });
    EXPECT_EQ(outcome.result, "0 all");
}

TEST(ForkExecvGetouterr, TheOutputsOfTheChildBlock) {
    EXPECT_EQ(isolated_getouterr("grep '^flags' /proc/self/fdinfo/1 /proc/self/fdinfo/2 | "
                                 "grep -c '[4567][0-7]\\{3\\}$'")
                  .result,
              "1|0\n||"); // O_NONBLOCK is 04000
}

TEST(ForkExecvGetouterr, LeavesStandardInput) {
    const Outcome outcome = isolated::run([] {
        dup2(file_with("input"), STDIN_FILENO);
        return getouterr("cat");
    });
    EXPECT_EQ(outcome.result, "0|input||");
}

TEST(ForkExecvGetouterr, ASignalIsMinusOne) {
    EXPECT_EQ(isolated_getouterr("echo x; kill -9 $$").result, "-1|x\n||");
}

TEST(ForkExecvGetouterr, GivesSigpipeItsDefaultBack) {
    EXPECT_EQ(isolated_getouterr(kSigpipeScript).result, "-1|||");
}

TEST(ForkExecvGetouterr, AMissingProgramIsStatus255) {
    const Outcome outcome = isolated::run([] {
        char* out;
        char* err;
        const int code = fork_execv_getouterr("/no/such/program", script("").get(), &out, &err);
        return std::to_string(code) + "|" + take(out) + "|" + take(err);
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "255||fork_execv: execv(\"/no/such/program\") failed: No such file "
                              "or directory\n");
}

TEST(ForkExecvGetouterr, WaitsForAChildThatHasClosedItsOutputs) {
    EXPECT_EQ(isolated_getouterr("echo x; exec >&- 2>&-; sleep 0.3; exit 4").result, "4|x\n||");
}

TEST(ForkExecvGetouterr, ReadsOnWhenOneOutputHasEnded) {
    EXPECT_EQ(isolated_getouterr("exec 2>&-; sleep 0.1; echo x").result, "0|x\n||");
    EXPECT_EQ(isolated_getouterr("exec >&-; sleep 0.1; echo x >&2").result, "0||x\n|");
}

TEST(ForkExecvGetouterr, OutlastsASilentOrStoppedChild) {
    const Outcome outcome = isolated_getouterr("echo early; (sleep 1.3; kill -CONT $$) >/dev/null "
                                               "2>&1 & kill -STOP $$; echo late; exit 6");
    EXPECT_EQ(outcome.result, "6|early\nlate\n||");
}

TEST(ForkExecvGetouterr, EndsWithTheChildWhenOthersKeepItsOutputsOpen) {
    const Outcome outcome = isolated::run([] {
        const auto start = Clock::now();
        const std::string result = collect_beside_survivor("sleep 60 & echo $!; echo done; exit 6");
        return result + (Clock::now() - start < std::chrono::seconds(30) ? "" : " much later");
    });
    EXPECT_EQ(outcome.result, "6|done\n||");
}

TEST(ForkExecvGetouterr, LosesNothingThatIsWrittenJustBeforeTheEnd) {
    const Outcome outcome = isolated::run([] {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1)
            return std::string("no pipe");
        dup2(ends[0], STDIN_FILENO);
        // The child writes and ends between the time-out and the look at it.
        before_poll_of_child = [&](pid_t pid) {
            siginfo_t ended;
            if (pid > 0 && write(ends[1], "\n", 1) == 1)
                waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
        };
        return collect_beside_survivor(
            "sleep 60 & echo $!; read x; echo late; echo error >&2; exit 2");
    });
    EXPECT_EQ(outcome.result, "2|late\n|error\n|");
}

TEST(ForkExecvGetouterr, AFailedWaitIsMinusOne) {
    const Outcome outcome = isolated::run([] {
        std::signal(SIGCHLD, SIG_IGN);
        return getouterr("echo x; exit 3");
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "-1|x\n||");
}

TEST(ForkExecvGetouterr, AFailedLookAtTheChildIsMinusOne) {
    const Outcome outcome = isolated::run([] {
        std::signal(SIGCHLD, SIG_IGN);
        return collect_beside_survivor("sleep 60 & echo $!; exit 3");
    });
    EXPECT_EQ(outcome.result, "-1|||");
}

TEST(ForkExecvGetouterr, AChildThatCannotBeReadAnyMoreEndsBySigpipe) {
    const Outcome outcome = isolated::run([] {
        fault::arm(fault::Call::poll, 1, ENOMEM);
        return getouterr("while echo x; do :; done; exit 3");
    });
    EXPECT_EQ(outcome.result, "-1|||");
}

TEST(ForkExecvGetouterr, ResumesAfterASignal) {
    const Outcome outcome = isolated::run([] {
        fault::arm(fault::Call::poll, 1, EINTR, 3);
        return getouterr("echo x");
    });
    EXPECT_EQ(outcome.result, "0|x\n||");
}

TEST(ForkExecvGetouterr, WorksWithoutStandardDescriptors) {
    const Outcome outcome = isolated::run([] {
        for (int fd = 0; fd < 3; ++fd)
            close(fd);
        return getouterr("echo o; echo e >&2; exit 3");
    });
    EXPECT_EQ(outcome.result, "3|o\n|e\n|");
}

TEST(ForkExecvGetouterr, WorksWithManyOpenDescriptors) {
    const Outcome outcome = isolated::run([] {
        for (int fd = dup(0); fd != -1 && fd < 1100; fd = dup(0))
            continue;
        if (fcntl(1050, F_GETFD) == -1)
            return std::string("the descriptor limit is too low for this test");
        return getouterr("echo x");
    });
    EXPECT_TRUE(outcome.result == "0|x\n||" ||
                outcome.result == "the descriptor limit is too low for this test")
        << describe(outcome);
}

TEST(ForkExecvGetouterr, AFailedPipeEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       exhaust_descriptors();
                       return getouterr("exit 0");
                   }),
                   1, std::string("prog: fork_execv_getouterr: pipe() failed") + kEmfile);
}

TEST(ForkExecvGetouterr, APipeThatCannotBeMovedAsideEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       close(STDIN_FILENO);
                       char* out;
                       fault::arm(fault::Call::fcntl, 1, EMFILE);
                       fork_execl_getout(&out, kShell, "sh", "-c", "exit 0", nullptr);
                       return std::string();
                   }),
                   1, std::string("prog: fork_execv_getouterr: pipe() failed") + kEmfile);
}

TEST(ForkExecvGetouterr, AFailedFcntlEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       char* out;
                       fault::arm(fault::Call::fcntl, 1, EPERM);
                       fork_execl_getout(&out, kShell, "sh", "-c", "exit 0", nullptr);
                       return std::string();
                   }),
                   1,
                   "prog: fork_execv_getouterr: fcntl(O_NONBLOCK) failed\n"
                   "System error 1: Operation not permitted\n");
}

TEST(ForkExecvGetouterr, WithoutMemoryEndsTheProcess) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    EXPECT_MESSAGE(isolated::run([] {
                       char* out;
                       char* err;
                       const Arguments argv = script("echo x");
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       fork_execv_getouterr(kShell, argv.get(), &out, &err);
                       return std::string();
                   }),
                   1, std::string("prog: Cannot allocate memory") + kEnomem);
}

TEST(ForkExecvGetouterr, ANullTargetLeavesTheStream) {
    const Outcome outcome = isolated::run([] {
        char* err;
        const int code =
            fork_execv_getouterr(kShell, script("echo o; echo e >&2; exit 2").get(), nullptr, &err);
        return std::to_string(code) + "|" + take(err);
    });
    EXPECT_OUTCOME(outcome, kReturned, "o\n", "");
    EXPECT_EQ(outcome.result, "2|e\n");
}

TEST(ForkExeclGetouterr, TakesItsArgumentsAsAList) {
    const Outcome outcome = isolated::run([] {
        char* out;
        char* err;
        const int code =
            fork_execl_getouterr(&out, &err, kShell, "sh", "-c",
                                 "echo \"$0|$1|$#\"; echo e >&2; exit 2", "name", "a b", nullptr);
        return std::to_string(code) + "|" + take(out) + "|" + take(err);
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "2|name|a b|1\n|e\n");
}

TEST(ForkExecvGetout, CollectsStandardOutputOnly) {
    const Outcome outcome = isolated::run([] {
        const Leftovers leftovers;
        char* out;
        const int code =
            fork_execv_getout(kShell, script("echo o; echo e >&2; exit 2").get(), &out);
        return std::to_string(code) + "|" + take(out) + "|" + leftovers.found();
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "e\n");
    EXPECT_EQ(outcome.result, "2|o\n|");
}

TEST(ForkExeclGetout, TakesItsArgumentsAsAList) {
    const Outcome outcome = isolated::run([] {
        char* out;
        const int code = fork_execl_getout(&out, kShell, "sh", "-c", "echo \"$0|$1|$#\"", "name",
                                           "a b", nullptr);
        return std::to_string(code) + "|" + take(out);
    });
    EXPECT_EQ(outcome.result, "0|name|a b|1\n");
}

TEST(ForkExeclGetouterrAndGetout, FreeTheVector) {
    const Outcome outcome = isolated::run([] {
        const auto run = [] {
            char* out;
            char* err;
            fork_execl_getouterr(&out, &err, kShell, "sh", "-c", "seq 2000", nullptr);
            take(out);
            take(err);
            fork_execl_getout(&out, kShell, "sh", "-c", "seq 2000", nullptr);
            take(out);
        };
        return std::to_string(kept_by_calls(run));
    });
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExeclGetouterrAndGetout, WithoutMemoryForTheVectorEndTheProcess) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    const std::string message =
        std::string("prog: malloc() failed: Cannot allocate memory") + kEnomem;
    EXPECT_MESSAGE(isolated::run([] {
                       char* out;
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       fork_execl_getout(&out, kShell, "sh", "-c", "exit 0", nullptr);
                       return std::string();
                   }),
                   1, message);
    EXPECT_MESSAGE(isolated::run([] {
                       char* out;
                       char* err;
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       fork_execl_getouterr(&out, &err, kShell, "sh", "-c", "exit 0", nullptr);
                       return std::string();
                   }),
                   1, message);
}

} // namespace
