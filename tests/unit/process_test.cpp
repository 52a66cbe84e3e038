// The process's own state: standard descriptors, SIGPIPE, identity.

#include "autoresponder/process.h"

#include "isolated.h"
#include "support/sandbox_test.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/auxv.h>
#include <unistd.h>

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

// The variables, of those set here, that are left by prepare_process.
std::string left_in_environment(bool secure) {
    return isolated::run([secure] {
               more_rights_than_the_caller = secure;
               clearenv();
               for (const char* name :
                    {"LIBMYSQL_ENABLE_CLEARTEXT_PLUGIN", "LIBMYSQL_PLUGINS", "LIBMYSQL_PLUGIN_DIR",
                     "MARIADB_HOME", "MARIADB_PLUGIN_DIR", "MARIADB_TCP_PORT", "MARIADB_UNIX_PORT",
                     "MYSQL_HOME", "MYSQL_PWD", "MYSQL_TCP_PORT", "MYSQL_UNIX_PORT", "OPENSSL_CONF",
                     "SSL_CERT_DIR", "SSL_CERT_FILE", "PATH", "RESP_RECIPIENT"})
                   setenv(name, "x", 1);
               prepare_process();
               int count = 0;
               std::string names;
               for (char** variable = environ; *variable != nullptr; ++variable, ++count)
                   names += std::string(*variable) + " ";
               return count == 16 ? "all" : names;
           })
        .result;
}

TEST(PrepareProcess, DropsTheClientsVariablesWhereItHasMoreRightsThanItsCaller) {
    EXPECT_EQ(left_in_environment(true), "PATH=x RESP_RECIPIENT=x ");
}

TEST(PrepareProcess, KeepsTheEnvironmentOtherwise) {
    EXPECT_EQ(left_in_environment(false), "all");
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

} // namespace
