#include "lib/util/fork_exec.h"

#include "lib/conf/qrx_conf.h"
#include "support/children.h"
#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <utility>

// The configuration of this program: PRODUCT_ROOT_D is a folder of its own.
static std::string product_root;
static int asked_index = -1;

const char* qrxConfGetDefaultByIndex(int index) {
    asked_index = index;
    return product_root.c_str();
}

namespace {

using namespace children;
using isolated::kReturned;
using isolated::Outcome;

TEST(ForkExecvLog, IsSilentAboutSuccess) {
    const Outcome outcome = isolated::run([] {
        const Leftovers leftovers;
        const int code = fork_execv_log(0, kShell, script("echo o; echo e >&2").get());
        return std::to_string(code) + leftovers.found();
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExecvLog, ReportsAFailureWithTheOutputs) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(
            fork_execv_log(0, kShell, script("echo o; echo e >&2; exit 3").get()));
    });
    const std::string message = "prog: /bin/sh execution failed:\no\n";
    EXPECT_OUTCOME(outcome, kReturned, message, "e\n" + message);
    EXPECT_EQ(outcome.result, "3");
}

TEST(ForkExecvLog, ReportsAFailureWithoutOutput) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(fork_execv_log(0, kShell, script("exit 3").get())); });
    EXPECT_MESSAGE(outcome, kReturned, "prog: /bin/sh execution failed (no output)\n");
    EXPECT_EQ(outcome.result, "3");
}

TEST(ForkExecvLog, ReportsAKilledChild) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(fork_execv_log(0, kShell, script("kill -9 $$").get())); });
    EXPECT_MESSAGE(outcome, kReturned, "prog: /bin/sh execution failed (no output)\n");
    EXPECT_EQ(outcome.result, "-1");
}

TEST(ForkExecvLog, ReportsAMissingProgram) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(fork_execv_log(0, "/no/such/program", script("").get())); });
    const std::string message = "prog: /no/such/program execution failed (no output)\n";
    EXPECT_OUTCOME(outcome, kReturned, message,
                   "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n" +
                       message);
    EXPECT_EQ(outcome.result, "255");
}

TEST(ForkExecvLog, DoesNotTakeOutputsForFormats) {
    const std::string message = "prog: /bin/sh execution failed:\n%s\n";
    EXPECT_OUTCOME(isolated::run([] {
                       return std::to_string(
                           fork_execv_log(0, kShell, script("echo %s; echo %n >&2; exit 3").get()));
                   }),
                   kReturned, message, "%n\n" + message);
}

TEST(ForkExecvLog, QuietModeIsSilent) {
    const Outcome outcome = isolated::run([] {
        const Leftovers leftovers;
        const int code = fork_execv_log(1, kShell, script("echo o; echo e >&2; exit 3").get());
        return std::to_string(code) + leftovers.found();
    });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "3");
}

TEST(ForkExecvLog, FreesTheOutputsAndTheVector) {
    const Outcome outcome = isolated::run([] {
        const auto run = [] {
            fork_execl_log(0, kShell, "sh", "-c", "seq 2000; seq 2000 >&2; exit 3", nullptr);
        };
        return std::to_string(kept_by_calls(run));
    });
    EXPECT_EQ(outcome.result, "0");
}

TEST(ForkExecvLog, GivesSigpipeItsDefaultBack) {
    const Outcome outcome = isolated::run(
        [] { return std::to_string(fork_execv_log(1, kShell, script(kSigpipeScript).get())); });
    EXPECT_EQ(outcome.result, "-1");
}

TEST(ForkExeclLog, TakesItsArgumentsAsAList) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(fork_execl_log(0, kShell, "sh", "-c", "echo \"$0|$1|$#\"; exit 2",
                                             "name", "a b", nullptr));
    });
    EXPECT_MESSAGE(outcome, kReturned, "prog: /bin/sh execution failed:\nname|a b|1\n");
    EXPECT_EQ(outcome.result, "2");
}

TEST(ForkExeclLog, WithoutMemoryForTheVectorEndsTheProcess) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       fork_execl_log(0, kShell, "sh", "-c", "exit 0", nullptr);
                       return std::string();
                   }),
                   1,
                   "prog: malloc() failed: Cannot allocate memory\n"
                   "System error 12: Cannot allocate memory\n");
}

TEST(PathExec, ArgumentZeroIsThePath) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(path_exec(kShell, "-c", "tr '\\0' '|' </proc/$$/cmdline; exit 2",
                                        "name", "a b", nullptr));
    });
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: /bin/sh execution failed:\n/bin/sh|-c|tr '\\0' '|' </proc/$$/cmdline; "
                   "exit 2|name|a b|\n");
    EXPECT_EQ(outcome.result, "2");
}

template <size_t... I> int count_further(std::index_sequence<I...>) {
    return path_exec(kShell, "-c", "exit $#", "name", ((void)I, "x")..., nullptr);
}

TEST(PathExec, TakesNinetyNineFurtherArguments) {
    const Outcome outcome = isolated::run([] {
        // Three of the 99 come before those that the script counts.
        return std::to_string(count_further(std::make_index_sequence<95>())) + " " +
               std::to_string(count_further(std::make_index_sequence<96>())) + " " +
               std::to_string(count_further(std::make_index_sequence<97>())) + " " +
               std::to_string(count_further(std::make_index_sequence<200>()));
    });
    EXPECT_EQ(outcome.result, "95 96 96 96");
}

TEST(PathExec, IsSilentAboutSuccess) {
    const Outcome outcome =
        isolated::run([] { return std::to_string(path_exec(kShell, "-c", "echo x", nullptr)); });
    EXPECT_OUTCOME(outcome, kReturned, "", "");
    EXPECT_EQ(outcome.result, "0");
}

int run_raw(const char* path, ...) {
    va_list args;
    va_start(args, path);
    const int code = path_exec_raw(path, args);
    va_end(args);
    return code;
}

TEST(PathExecRaw, TakesAnArgumentList) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(
            run_raw(kShell, "-c", "echo \"$0|$1\"; exit 4", "name", "a", nullptr));
    });
    EXPECT_MESSAGE(outcome, kReturned, "prog: /bin/sh execution failed:\nname|a\n");
    EXPECT_EQ(outcome.result, "4");
}

// A product root with one utility, "report", that prints how it was called and ends with 2.
class Utility : public testing::Test {
protected:
    void SetUp() override {
        std::string folder = testing::TempDir() + "qrx-util-XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        product_root = folder;
        const std::filesystem::path bin = std::filesystem::path(folder) / "admin" / "bin";
        std::filesystem::create_directories(bin);
        std::ofstream(bin / "report") << "#!/bin/sh\necho \"$0|$1|$2|$#\"\nexit 2\n";
        std::filesystem::permissions(bin / "report", std::filesystem::perms::owner_all);
    }
    void TearDown() override { std::filesystem::remove_all(product_root); }

    static std::string report(const std::string& arguments) {
        const std::string path = product_root + "/admin/bin/report";
        return "prog: " + path + " execution failed:\n" + path + arguments + "\n";
    }
};

TEST_F(Utility, RunsByItsName) {
    const Outcome outcome = isolated::run([] {
        const int code = util_exec("report", "a b", "", nullptr);
        return std::to_string(code) + " " + std::to_string(asked_index);
    });
    EXPECT_MESSAGE(outcome, kReturned, report("|a b||2"));
    EXPECT_EQ(outcome.result, "2 28");
}

TEST_F(Utility, RunsWithoutArguments) {
    EXPECT_MESSAGE(isolated::run([] { return std::to_string(util_exec("report", nullptr)); }),
                   kReturned, report("|||0"));
}

TEST_F(Utility, RunsWithAReadyVector) {
    const Outcome outcome = isolated::run([] {
        return std::to_string(util_exec_args("report", Arguments{"zero", "x", "y"}.get()));
    });
    EXPECT_MESSAGE(outcome, kReturned, report("|x|y|2"));
    EXPECT_EQ(outcome.result, "2");
}

TEST_F(Utility, ANameWithASlashIsRefused) {
    for (const char* name : {"bin/report", "/report", "../bin/report", "report/", "/"}) {
        const std::string message = std::string("prog: Utility name '") + name +
                                    "' is invalid. Use only utility name without path.\n";
        const Outcome by_list =
            isolated::run([&] { return std::to_string(util_exec(name, nullptr)); });
        EXPECT_MESSAGE(by_list, kReturned, message);
        EXPECT_EQ(by_list.result, "-1");
        const Outcome by_vector = isolated::run(
            [&] { return std::to_string(util_exec_args(name, Arguments{"x"}.get())); });
        EXPECT_MESSAGE(by_vector, kReturned, message);
        EXPECT_EQ(by_vector.result, "-1");
    }
}

TEST_F(Utility, AMissingOneIsReported) {
    const Outcome outcome =
        isolated::run([] { return std::to_string(util_exec("missing", nullptr)); });
    const std::string path = product_root + "/admin/bin/missing";
    EXPECT_OUTCOME(outcome, kReturned, "prog: " + path + " execution failed (no output)\n",
                   "fork_execv: execv(\"" + path + "\") failed: No such file or directory\nprog: " +
                       path + " execution failed (no output)\n");
    EXPECT_EQ(outcome.result, "255");
}

TEST_F(Utility, ThePathIsCutTo4095Bytes) {
    const size_t fixed = product_root.size() + std::string("/admin/bin/").size();
    for (const size_t length : {4095 - fixed, 4096 - fixed, size_t{6000}}) {
        const std::string name(length, 'n');
        const Outcome outcome =
            isolated::run([&] { return std::to_string(util_exec(name.c_str(), nullptr)); });
        const std::string path = (product_root + "/admin/bin/" + name).substr(0, 4095);
        EXPECT_EQ(outcome.out, "prog: " + path + " execution failed (no output)\n") << length;
        EXPECT_EQ(outcome.result, "255");
    }
}

TEST(UtilLibexec, RunsFromItsFolder) {
    const Outcome outcome =
        isolated::run([] { return std::to_string(util_libexec("no such program", "x", nullptr)); });
    const std::string message =
        "prog: /usr/lib/quarx-9.0/no such program execution failed (no output)\n";
    EXPECT_OUTCOME(outcome, kReturned, message,
                   "fork_execv: execv(\"/usr/lib/quarx-9.0/no such program\") failed: No such file "
                   "or directory\n" +
                       message);
    EXPECT_EQ(outcome.result, "255");
}

// Lets the process, and nobody else, see the folder with this program in it, laid over /usr/lib.
// Returns what the system refused, or "".
std::string lay_over_libexec(const std::string& scratch, const std::string& program) {
    namespace fs = std::filesystem;
    if (unshare(CLONE_NEWNS) == -1)
        return std::string("unshare: ") + std::strerror(errno);
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (mount("tmpfs", scratch.c_str(), "tmpfs", 0, nullptr) == -1)
        return std::string("mount of a tmpfs: ") + std::strerror(errno);
    const fs::path file = fs::path(scratch) / "upper" / "quarx-9.0" / "report";
    fs::create_directories(file.parent_path());
    fs::create_directories(fs::path(scratch) / "work");
    std::ofstream(file) << program;
    fs::permissions(file, fs::perms::owner_all);
    const std::string options =
        "lowerdir=/usr/lib,upperdir=" + scratch + "/upper,workdir=" + scratch + "/work";
    if (mount("overlay", "/usr/lib", "overlay", 0, options.c_str()) == -1)
        return std::string("mount of an overlay: ") + std::strerror(errno);
    errno = 0;
    return "";
}

TEST(UtilLibexec, PassesTheArguments) {
    std::string folder = testing::TempDir() + "qrx-util-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const Outcome outcome = isolated::run([&] {
        const std::string refused =
            lay_over_libexec(folder, "#!/bin/sh\necho \"$0|$1|$2|$#\"\nexit 2\n");
        return refused.empty() ? std::to_string(util_libexec("report", "a b", "", nullptr))
                               : refused;
    });
    std::filesystem::remove_all(folder);
    if (outcome.result.find("mount") != std::string::npos ||
        outcome.result.find("unshare") != std::string::npos)
        GTEST_SKIP() << "a private mount is refused here: " << outcome.result;
    const std::string path = "/usr/lib/quarx-9.0/report";
    EXPECT_MESSAGE(outcome, kReturned,
                   "prog: " + path + " execution failed:\n" + path + "|a b||2\n");
    EXPECT_EQ(outcome.result, "2");
}

TEST(UtilLibexec, DoesNotCheckTheName) {
    const Outcome outcome =
        isolated::run([] { return std::to_string(util_libexec("no/such", nullptr)); });
    EXPECT_EQ(outcome.out, "prog: /usr/lib/quarx-9.0/no/such execution failed (no output)\n");
    EXPECT_EQ(outcome.result, "255");
}

} // namespace
