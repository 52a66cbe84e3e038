#include "lib/util/messlog.h"

#include "support/fault.h"
#include "support/isolated.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

// What went to the C library's log functions, in order.
static std::string syslog_calls;

extern "C" void openlog(const char* ident, int options, int facility) {
    syslog_calls += std::string("openlog ") + ident + " " + std::to_string(options) + " " +
                    std::to_string(facility) + "\n";
    reinterpret_cast<void (*)(const char*, int, int)>(dlsym(RTLD_NEXT, "openlog"))(ident, options,
                                                                                   facility);
}

extern "C" void closelog() {
    syslog_calls += "closelog\n";
    reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "closelog"))();
}

namespace {

using isolated::kReturned;
using isolated::Outcome;

constexpr char kEnoent[] = "System error 2: No such file or directory\n";

Outcome message_of(const std::string& text, int error) {
    return isolated::run([&] {
        errno = error;
        messlog2(0, 0, "%s", text.c_str());
        return std::string();
    });
}

Outcome message_as(const char* progname) {
    return isolated::run([&] {
        std::string path = progname ? progname : "";
        PROGNAME = progname ? path.data() : nullptr;
        messlog2(0, 0, "x");
        return std::string();
    });
}

TEST(Messlog2, WritesThePrefixAndALineFeedToBothStreams) {
    EXPECT_MESSAGE(message_of("x", 0), kReturned, "prog: x\n");
}

TEST(Messlog2, AppendsTheSystemErrorOfTheCall) {
    EXPECT_MESSAGE(message_of("x", ENOENT), kReturned, std::string("prog: x\n") + kEnoent);
}

TEST(Messlog2, ATextThatEndsInALineFeedGetsNoSecondOne) {
    EXPECT_MESSAGE(message_of("x\n", 0), kReturned, "prog: x\n");
}

TEST(Messlog2, TheSystemErrorFollowsTheLineFeedOfTheText) {
    EXPECT_MESSAGE(message_of("x\n", ENOENT), kReturned, std::string("prog: x\n\n") + kEnoent);
}

TEST(Messlog2, AnEmptyTextIsALineFeed) {
    EXPECT_MESSAGE(message_of("", 0), kReturned, "prog: \n");
}

TEST(Messlog2, FormatsItsArguments) {
    EXPECT_MESSAGE(isolated::run([] {
                       messlog2(0, 0, "%s %d%% %c", "a", -5, 'z');
                       return std::string();
                   }),
                   kReturned, "prog: a -5% z\n");
}

TEST(Messlog2, AnUnknownErrorNumberHasItsText) {
    EXPECT_MESSAGE(message_of("x", 12345), kReturned,
                   "prog: x\nSystem error 12345: Unknown error 12345\n");
}

TEST(Messlog2, LeavesErrnoAsItWas) {
    const Outcome outcome = isolated::run([] {
        errno = ENOTTY;
        close(STDOUT_FILENO);
        messlog2(0, 0, "x");
        return std::to_string(errno);
    });
    EXPECT_EQ(outcome.result, std::to_string(ENOTTY));
}

TEST(Messlog2, AStatusEndsTheProcessAfterTheMessage) {
    for (const int status : {1, 2, 255})
        EXPECT_MESSAGE(isolated::run([&] {
                           messlog2(status, 1, "bye");
                           return std::string("it went on");
                       }),
                       status, "prog: bye\n");
}

TEST(Messlog2, AStatusEndsTheProcessInOrder) {
    EXPECT_OUTCOME(isolated::run([] {
                       std::atexit([] { std::printf("at exit\n"); });
                       messlog2(1, 1, "bye");
                       return std::string("it went on");
                   }),
                   1, "prog: bye\nat exit\n", "prog: bye\n");
}

TEST(Messlog2, TheFlagChangesNothing) {
    EXPECT_MESSAGE(isolated::run([] {
                       messlog2(0, 1, "x");
                       messlog2(0, -7, "y");
                       return std::string();
                   }),
                   kReturned, "prog: x\nprog: y\n");
}

TEST(Messlog2, WritesTheMessageTwiceWhereBothStreamsGoToOnePlace) {
    EXPECT_OUTCOME(isolated::run([] {
                       dup2(STDERR_FILENO, STDOUT_FILENO);
                       messlog2(0, 0, "x");
                       return std::string();
                   }),
                   kReturned, "", "prog: x\nprog: x\n");
}

// Both streams are buffered whole, as in a process whose output is a file, and record their
// flushes.
std::string order_of_flushes(const std::function<void()>& log) {
    return isolated::run([&] {
               static std::string flushed;
               const auto recording = [](const char* name) {
                   cookie_io_functions_t functions{};
                   functions.write = [](void* stream, const char* text, size_t size) {
                       flushed += static_cast<const char*>(stream);
                       flushed.append(text, size);
                       return static_cast<ssize_t>(size);
                   };
                   return fopencookie(const_cast<char*>(name), "w", functions);
               };
               stdout = recording("out:");
               stderr = recording("err:");
               log();
               return flushed;
           })
        .result;
}

TEST(Messlog2, FlushesStandardErrorThenStandardOutput) {
    EXPECT_EQ(order_of_flushes([] { messlog2(0, 0, "x"); }), "err:prog: x\nout:prog: x\n");
}

TEST(LevelledLog, FlushesStandardErrorThenStandardOutput) {
    EXPECT_EQ(order_of_flushes([] { quarx_log(1, "x"); }), "err:x\nout:x\n");
}

TEST(Messlog2, PrefixIsTheLastComponentOfProgname) {
    EXPECT_MESSAGE(message_as("/opt/x.y/name"), kReturned, "name: x\n");
    EXPECT_MESSAGE(message_as("name"), kReturned, "name: x\n");
    EXPECT_MESSAGE(message_as("./name"), kReturned, "name: x\n");
}

TEST(Messlog2, NoPrognameMeansNoPrefix) {
    EXPECT_MESSAGE(message_as(nullptr), kReturned, "x\n");
}

TEST(Messlog2, APrognameWithoutALastComponentMeansNoPrefix) {
    EXPECT_MESSAGE(message_as(""), kReturned, "x\n");
    EXPECT_MESSAGE(message_as("/opt/"), kReturned, "x\n");
}

TEST(Messlog2, WritesLongMessagesWhole) {
    for (const size_t length : {4094u, 4095u, 4096u, 4097u, 5000u, 1000000u}) {
        std::string text(length, 'a');
        text.back() = 'Z';
        const Outcome outcome = message_of(text, 0);
        EXPECT_TRUE(outcome.out == "prog: " + text + "\n") << length << " " << outcome.out.size();
        EXPECT_TRUE(outcome.err == outcome.out) << length << " " << outcome.err.size();
    }
}

TEST(Messlog2, KeepsASystemErrorThatJustFits) {
    const std::string suffix = "\nSystem error 2: No such file or directory";
    const std::string text(4095 - suffix.size(), 'a');
    EXPECT_MESSAGE(message_of(text, ENOENT), kReturned, "prog: " + text + suffix + "\n");
}

TEST(Messlog2, DropsASystemErrorThatDoesNotFit) {
    const size_t suffix_length = std::strlen("\nSystem error 2: No such file or directory");
    for (const size_t length :
         {4096 - suffix_length, size_t{4094}, size_t{4095}, size_t{4096}, size_t{5000}}) {
        const std::string text(length, 'a');
        EXPECT_MESSAGE(message_of(text, ENOENT), kReturned, "prog: " + text + "\n");
    }
}

TEST(Messlog2, WithoutMemoryASubstituteTextGoesOut) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::allocate, 1, ENOMEM);
                       messlog2(3, 0, "x");
                       return std::string();
                   }),
                   3, "prog: Can't allocate memory for error message\n");
    EXPECT_MESSAGE(isolated::run([] {
                       fault::arm(fault::Call::allocate, 1, ENOMEM, fault::kForGood);
                       messlog2(0, 0, "x");
                       return std::string();
                   }),
                   kReturned, "prog: Can't allocate memory for error message\n");
}

TEST(Messlog2, WithoutMemoryToGrowTheTextIsCut) {
    if (!fault::kMemoryFaults)
        GTEST_SKIP() << fault::kNoMemoryFaults;
    const std::string text = std::string(4095, 'a') + "bcd";
    EXPECT_MESSAGE(isolated::run([&] {
                       errno = ENOENT;
                       fault::arm(fault::Call::allocate, 2, ENOMEM);
                       messlog2(0, 0, "%s", text.c_str());
                       return std::string();
                   }),
                   kReturned, "prog: " + std::string(4095, 'a') + "\n");
}

TEST(Messlog2, ATextThatCannotBeFormattedIsCutThere) {
    EXPECT_MESSAGE(isolated::run([] {
                       const wchar_t invalid[] = {wchar_t(0x7fffffff), 0};
                       messlog2(0, 0, "before %ls after", invalid);
                       return std::string();
                   }),
                   kReturned, "prog: before \n");
}

TEST(ExMesslog, TakesItsTextAsItIs) {
    EXPECT_MESSAGE(isolated::run([] {
                       errno = ENOENT;
                       ex_messlog("100%s\n", 0, 0);
                       ex_messlog("50%", 0, 0);
                       return std::string();
                   }),
                   kReturned, "prog: 100%s\nprog: 50%\n");
}

TEST(ExMesslog, AStatusEndsTheProcess) {
    EXPECT_MESSAGE(isolated::run([] {
                       ex_messlog("bye", 9, 0);
                       return std::string();
                   }),
                   9, "prog: bye\n");
}

TEST(LevelledLog, StartsOnTheConsoleAtLevelSix) {
    EXPECT_EQ(LogFacility, 16);
    EXPECT_EQ(LogFacility, LOG_MAIL);
    EXPECT_EQ(LogLevel, 6);
    EXPECT_EQ(LogEnabled, 1);
    EXPECT_TRUE(quarx_log == &_quarx_utility_log);
    EXPECT_TRUE(quarx_logv == &_quarx_utility_logv);
}

[[gnu::format(printf, 2, 3)]] void log_by_list(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    quarx_logv(level, format, args);
    va_end(args);
}

Outcome log_levels(const std::function<void()>& set_up) {
    return isolated::run([&] {
        set_up();
        for (const int level : {0, 1, 5, 6, 7, 12})
            quarx_log(level, "level %d", level);
        return std::to_string(LogEnabled) + " " + std::to_string(LogLevel) + " " +
               std::to_string(LogFacility);
    });
}

TEST(LevelledLog, DropsWhatIsAboveTheLevel) {
    EXPECT_MESSAGE(log_levels([] {}), kReturned, "level 0\nlevel 1\nlevel 5\nlevel 6\n");
}

TEST(LevelledLog, AlwaysAddsALineFeedAndNeverAPrefix) {
    EXPECT_MESSAGE(isolated::run([] {
                       errno = ENOENT;
                       quarx_log(1, "%s", "x\n");
                       return std::string();
                   }),
                   kReturned, "x\n\n");
}

TEST(LevelledLog, TakesAnArgumentList) {
    EXPECT_MESSAGE(isolated::run([] {
                       log_by_list(6, "%s %d", "a", 7);
                       log_by_list(7, "%s %d", "b", 8);
                       return std::string();
                   }),
                   kReturned, "a 7\n");
}

TEST(LogInit, ConsoleKeepsTheLevelAndTheFacility) {
    const Outcome outcome =
        log_levels([] { quarx_log_init("console", 1, LOG_DAEMON, 0, "ident"); });
    EXPECT_MESSAGE(outcome, kReturned, "level 0\nlevel 1\n");
    EXPECT_EQ(outcome.result, "1 1 24");
}

TEST(LogInit, ConsoleIsComparedOverSevenCharactersInAnyCase) {
    for (const char* target : {"console", "CONSOLE", "Console:whatever"}) {
        const Outcome outcome =
            log_levels([&] { quarx_log_init(target, 12, LOG_MAIL, 0, nullptr); });
        EXPECT_EQ(outcome.result, "1 12 16") << target;
        EXPECT_EQ(outcome.out, "level 0\nlevel 1\nlevel 5\nlevel 6\nlevel 7\nlevel 12\n") << target;
    }
}

TEST(LogInit, AnotherTargetSwitchesLoggingOff) {
    for (const char* target : {"consol", "file", "", " console"}) {
        const Outcome outcome = log_levels([&] { quarx_log_init(target, 6, LOG_MAIL, 0, "id"); });
        EXPECT_MESSAGE(outcome, kReturned, "");
        EXPECT_EQ(outcome.result, "0 6 16") << target;
    }
}

TEST(LogInit, ALevelBelowOneSwitchesLoggingOff) {
    for (const int level : {0, -1, -100}) {
        const Outcome outcome =
            log_levels([&] { quarx_log_init("console", level, LOG_MAIL, 0, "id"); });
        EXPECT_MESSAGE(outcome, kReturned, "");
        EXPECT_EQ(outcome.result, "0 0 16") << level;
    }
}

TEST(LogInit, ALaterCallSwitchesLoggingOnAgain) {
    EXPECT_MESSAGE(log_levels([] {
                       quarx_log_init("file", 0, LOG_MAIL, 0, "id");
                       quarx_log_init("console", 5, LOG_MAIL, 0, "id");
                   }),
                   kReturned, "level 0\nlevel 1\nlevel 5\n");
}

TEST(LogInit, NoTargetOpensSyslogAnewWithThePid) {
    const Outcome outcome = isolated::run([] {
        quarx_log_init(nullptr, 3, LOG_DAEMON, LOG_NDELAY, "ident");
        return syslog_calls + (quarx_log == &syslog ? "syslog " : "- ") +
               (quarx_logv == &vsyslog ? "vsyslog " : "- ") + std::to_string(LogEnabled) + " " +
               std::to_string(LogLevel) + " " + std::to_string(LogFacility);
    });
    EXPECT_EQ(outcome.result, "closelog\nopenlog ident " + std::to_string(LOG_NDELAY | LOG_PID) +
                                  " " + std::to_string(LOG_DAEMON) + "\nsyslog vsyslog 1 3 24");
}

TEST(LogInit, MessagesReachSyslog) {
    const Outcome outcome = isolated::run([] {
        quarx_log_init(nullptr, 6, LOG_MAIL, LOG_PERROR, "ident");
        quarx_log(LOG_DEBUG, "x %d", 1);
        log_by_list(LOG_DEBUG, "y %d", 2);
        return std::to_string(getpid());
    });
    const std::string ident = "ident[" + outcome.result + "]: ";
    EXPECT_OUTCOME(outcome, kReturned, "", ident + "x 1\n" + ident + "y 2\n");
}

TEST(LogInit, TheConsoleFollowsSyslog) {
    EXPECT_MESSAGE(log_levels([] {
                       quarx_log_init(nullptr, 6, LOG_MAIL, 0, "ident");
                       quarx_log_init("console", 1, LOG_MAIL, 0, "ident");
                   }),
                   kReturned, "level 0\nlevel 1\n");
}

} // namespace
