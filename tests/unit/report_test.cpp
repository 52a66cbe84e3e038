// Lines on standard error, and the end of a run with one.

#include "autoresponder/report.h"

#include "support/sandbox_test.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::Eq;
using testing::ExitedWithCode;

TEST(Report, IsTheLineAndALineFeed) {
    EXPECT_EQ(standard_error_of([] { report("Abnormal exit."); }), "Abnormal exit.\n");
    EXPECT_EQ(standard_error_of([] { report(""); }), "\n");
    EXPECT_EQ(standard_error_of([] { report("100% %s %n"); }), "100% %s %n\n");
}

TEST(Report, KeepsNulBytes) {
    const std::string line("a\0b", 3);
    EXPECT_EQ(standard_error_of([&] { report(line); }), line + "\n");
}

TEST(Report, IsWrittenAtOnceAndInOneWrite) {
    // A datagram socket keeps writes apart.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    const int original = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    report("a line of some length");
    dup2(original, STDERR_FILENO);
    char text[100];
    const ssize_t got = recv(ends[0], text, sizeof text, MSG_DONTWAIT);
    EXPECT_EQ(std::string(text, got < 0 ? 0 : static_cast<size_t>(got)), "a line of some length\n");
    for (const int fd : {ends[0], ends[1], original})
        close(fd);
}

TEST(Report, IsFlushedWhereStandardErrorIsBuffered) {
    EXPECT_EXIT(
        {
            static char buffer[4096];
            setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
            report("line");
            _exit(0);
        },
        ExitedWithCode(0), Eq("line\n"));
}

TEST(Report, IgnoresAStandardErrorThatCantBeWritten) {
    const int original = dup(STDERR_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    dup2(full, STDERR_FILENO);
    report("lost");
    dup2(original, STDERR_FILENO);
    clearerr(stderr);
    EXPECT_EQ(standard_error_of([] { report("next"); }), "next\n");
    close(original);
    close(full);
}

TEST(ErrorText, IsTheTextAndTheNumber) {
    EXPECT_EQ(error_text(ENOENT), "No such file or directory (2)");
    EXPECT_EQ(error_text(0), "Success (0)");
    EXPECT_EQ(error_text(99999), "Unknown error 99999 (99999)");
}

TEST(ReportAndExit, EndsTheRunWithStatusZero) {
    EXPECT_EXIT(report_and_exit("Abnormal exit."), ExitedWithCode(0), Eq("Abnormal exit.\n"));
    EXPECT_EXIT(report_and_exit("Unable to query: ", "no"), ExitedWithCode(0),
                Eq("Unable to query: no\n"));
}

} // namespace
