// The process's own state: standard descriptors, signals, environment, mode mask, identity, core
// dumps.

#include "autoresponder/process.h"

#include "support/isolated.h"
#include "support/sandbox_test.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

bool more_rights_than_the_caller = false;

} // namespace

// What the kernel says of a set-user-ID program; getauxval(3).
extern "C" unsigned long __wrap_getauxval(unsigned long type) {
    return type == AT_SECURE && more_rights_than_the_caller ? 1 : 0;
}

namespace {

std::string what_is(int fd) {
    std::error_code none;
    const std::string target =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
    return none ? "closed" : target;
}

// What the standard descriptors are after prepare_process, when these come closed.
std::string after_preparing(const std::vector<int>& closed) {
    return isolated::run([&] {
               const std::string before[] = {what_is(0), what_is(1), what_is(2)};
               for (const int fd : closed)
                   close(fd);
               prepare_process();
               std::string result;
               for (int fd = 0; fd < 3; ++fd)
                   result += (what_is(fd) == before[fd] ? "kept" : what_is(fd)) + " ";
               return result;
           })
        .result;
}

TEST(PrepareProcess, LeavesOpenStandardDescriptorsAlone) {
    EXPECT_EQ(after_preparing({}), "kept kept kept ");
}

TEST(PrepareProcess, OpensDevNullOnClosedStandardDescriptors) {
    EXPECT_EQ(after_preparing({1}), "kept /dev/null kept ");
    EXPECT_EQ(after_preparing({2}), "kept kept /dev/null ");
    EXPECT_EQ(after_preparing({1, 2}), "kept /dev/null /dev/null ");
}

TEST(PrepareProcess, OpensDevNullOnAClosedStandardInput) {
    const isolated::Outcome outcome = isolated::run([] {
        close(STDIN_FILENO);
        prepare_process();
        char byte;
        return what_is(STDIN_FILENO) + " " + std::to_string(read(STDIN_FILENO, &byte, 1));
    });
    EXPECT_EQ(outcome.result, "/dev/null 0");
}

TEST(PrepareProcess, OpensDevNullOnAllStandardDescriptorsAndNoOther) {
    const isolated::Outcome outcome = isolated::run([] {
        const size_t before = files_in("/proc/self/fd").size();
        for (int fd = 0; fd < 3; ++fd)
            close(fd);
        prepare_process();
        std::string result = files_in("/proc/self/fd").size() == before ? "same number:" : "other:";
        for (int fd = 0; fd < 3; ++fd)
            result += " " + what_is(fd) + ((fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR ? "" : "!");
        return result;
    });
    EXPECT_EQ(outcome.result, "same number: /dev/null /dev/null /dev/null");
}

TEST(PrepareProcess, LeavesNoHoleInARootFolderWithoutDevices) {
    ASSERT_TRUE(std::filesystem::create_directory("/tmp/root"));
    const isolated::Outcome outcome = isolated::run([] {
        if (chroot("/tmp/root") != 0 || chdir("/") != 0)
            return std::string("no chroot");
        close(STDIN_FILENO);
        close(STDERR_FILENO);
        prepare_process();
        char byte = 'x';
        std::string result;
        for (const int fd : {STDIN_FILENO, STDERR_FILENO})
            result += std::to_string(fcntl(fd, F_GETFD)) + std::to_string(read(fd, &byte, 1)) +
                      std::to_string(write(fd, &byte, 1)) + " ";
        return result;
    });
    std::filesystem::remove("/tmp/root");
    EXPECT_EQ(outcome.result, "0-1-1 0-1-1 ");
}

TEST(PrepareProcess, GivesItsDescriptorsToChildren) {
    const isolated::Outcome outcome = isolated::run([] {
        close(STDOUT_FILENO);
        prepare_process();
        return std::to_string(fcntl(STDOUT_FILENO, F_GETFD));
    });
    EXPECT_EQ(outcome.result, "0");
}

TEST(PrepareProcess, IgnoresBrokenPipes) {
    const isolated::Outcome outcome = isolated::run([] {
        std::signal(SIGPIPE, SIG_DFL);
        prepare_process();
        int ends[2];
        if (pipe(ends) != 0)
            return std::string("no pipe");
        close(ends[0]);
        return std::to_string(write(ends[1], "x", 1));
    });
    EXPECT_EQ(outcome.result, "-1");
    EXPECT_EQ(outcome.signal, 0);
}

TEST(PrepareProcess, IgnoresALimitOnFileSizes) {
    const isolated::Outcome outcome = isolated::run([] {
        prepare_process();
        std::raise(SIGXFSZ);
        return std::string("alive");
    });
    EXPECT_EQ(outcome.result, "alive");
}

// The whole environment after prepare_process, in which these were set.
std::string environment_after_preparing(bool secure, const std::vector<std::string>& variables) {
    return isolated::run([&] {
               more_rights_than_the_caller = secure;
               clearenv();
               for (const std::string& variable : variables)
                   putenv(strdup(variable.c_str())); // the environment's for good
               prepare_process();
               std::vector<std::string> left;
               for (char** variable = environ; variable && *variable; ++variable)
                   left.emplace_back(*variable);
               std::sort(left.begin(), left.end());
               std::string result;
               for (const std::string& variable : left)
                   result += variable + " ";
               return result;
           })
        .result;
}

constexpr char kRootsPath[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin ";

TEST(PrepareProcess, KeepsTheRecipientAloneWhereItHasMoreRightsThanItsCaller) {
    EXPECT_EQ(environment_after_preparing(
                  true, {"MYSQL_UNIX_PORT=x", "LIBMYSQL_PLUGINS=x", "PATH=/sandbox/bin",
                         "RESP_RECIPIENT=a@b", "HOME=/", "RESP_RECIPIENT_=x", "XRESP_RECIPIENT=x"}),
              std::string(kRootsPath) + "RESP_RECIPIENT=a@b ");
}

TEST(PrepareProcess, KeepsAnEmptyRecipient) {
    EXPECT_EQ(environment_after_preparing(true, {"RESP_RECIPIENT="}),
              std::string(kRootsPath) + "RESP_RECIPIENT= ");
}

TEST(PrepareProcess, MakesUpNoRecipient) {
    EXPECT_EQ(environment_after_preparing(true, {"MYSQL_PWD=x"}), kRootsPath);
    EXPECT_EQ(environment_after_preparing(true, {}), kRootsPath);
}

TEST(PrepareProcess, KeepsTheEnvironmentOtherwise) {
    EXPECT_EQ(environment_after_preparing(false, {"MYSQL_UNIX_PORT=x", "PATH=/sandbox/bin", "A="}),
              "A= MYSQL_UNIX_PORT=x PATH=/sandbox/bin ");
}

// The file mode mask after prepare_process, in octal digits, when it comes as `callers`.
std::string mask_after_preparing(bool secure, mode_t callers) {
    return isolated::run([=] {
               more_rights_than_the_caller = secure;
               umask(callers);
               prepare_process();
               char digits[8];
               snprintf(digits, sizeof digits, "%03o", umask(0));
               return std::string(digits);
           })
        .result;
}

TEST(PrepareProcess, SetsTheModeMaskWhereItHasMoreRightsThanItsCaller) {
    EXPECT_EQ(mask_after_preparing(true, 0), "022");
    EXPECT_EQ(mask_after_preparing(true, 0777), "022");
}

TEST(PrepareProcess, KeepsTheModeMaskOtherwise) {
    EXPECT_EQ(mask_after_preparing(false, 0), "000");
    EXPECT_EQ(mask_after_preparing(false, 077), "077");
}

TEST(TakeRootIdentity, TakesUserAndGroupZeroFromASetUserIdProgram) {
    if (!has_other_users())
        GTEST_SKIP() << kNoOtherUsers;
    // The identities of a program of root's with the set-user-ID bit, run by somebody else.
    const isolated::Outcome outcome = isolated::run([] {
        if (setresgid(kOtherUser, kOtherUser, kOtherUser) != 0 || setresuid(kOtherUser, 0, 0) != 0)
            return std::string("can't become somebody else");
        take_root_identity();
        uid_t user[3];
        gid_t group[3];
        getresuid(&user[0], &user[1], &user[2]);
        getresgid(&group[0], &group[1], &group[2]);
        std::string result;
        for (int i = 0; i < 3; ++i)
            result += std::to_string(user[i]) + ":" + std::to_string(group[i]) + " ";
        return result;
    });
    EXPECT_EQ(outcome.result, "0:0 0:0 0:0 ");
}

TEST(TakeRootIdentity, GoesOnWhereItIsNotAllowed) {
    if (!has_other_users())
        GTEST_SKIP() << kNoOtherUsers;
    const isolated::Outcome outcome = isolated::run([] {
        if (setgid(kOtherUser) != 0 || setuid(kOtherUser) != 0)
            return std::string("can't become somebody else");
        const std::string written = standard_error_of(take_root_identity);
        return std::to_string(geteuid()) + ":" + std::to_string(getegid()) + " " + written;
    });
    EXPECT_EQ(outcome.result, "65534:65534 ");
}

TEST(ForbidCoreDumps, MakesTheProcessUndumpable) {
    const isolated::Outcome outcome = isolated::run([] {
        const int before = prctl(PR_GET_DUMPABLE);
        forbid_core_dumps();
        return std::to_string(before) + std::to_string(prctl(PR_GET_DUMPABLE));
    });
    EXPECT_EQ(outcome.result, "10");
}

} // namespace
