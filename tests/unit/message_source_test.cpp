// Reading the message to its end, and the copy of it.

#include "autoresponder/message_source.h"

#include "autoresponder/intake.h"
#include "lib/util/unique_fd.h"
#include "support/fault.h"
#include "support/isolated.h"
#include "support/sandbox_test.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <initializer_list>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int refused_writes = 0;

} // namespace

// Lets the next calls of this program's own code fail.
extern "C" ssize_t __real_write(int fd, const void* bytes, size_t count);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, size_t count) {
    if (refused_writes > 0) {
        --refused_writes;
        errno = ENOSPC;
        return -1;
    }
    return __real_write(fd, bytes, count);
}

namespace {

using testing::Eq;
using testing::ExitedWithCode;

constexpr char kInput[] = "/tmp/input";
constexpr char kCopy[] = "/tmp/copy";

class MessageSource : public SandboxTest {
protected:
    // What read_message returns for the descriptor, which it leaves open; the copy is at kCopy.
    static std::string read_from(int input) {
        const UniqueFd copy(open(kCopy, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const DwString text = read_message(input, copy.get());
        return {text.data(), text.length()};
    }

    static void expect_one_more_line_feed(const std::string& message) {
        write_file(kInput, message);
        const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
        expect_same(read_from(input.get()), message + "\n");
        expect_same(read_file(kCopy), message + "\n");
    }

    static void expect_same(const std::string& got, const std::string& wanted) {
        EXPECT_EQ(got.size(), wanted.size());
        EXPECT_TRUE(got == wanted) << got.substr(0, 200);
    }
};

// A pipe whose writer is a child process.
class FedPipe {
public:
    template <class Feeder> FedPipe(int flags, Feeder feed) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | flags), 0);
        read_end_.reset(ends[0]);
        child_ = fork();
        if (child_ == 0) {
            close(ends[0]);
            _exit(feed(ends[1]) ? 0 : 1);
        }
        close(ends[1]);
    }
    int get() const { return read_end_.get(); }

    // Whether the feeder was content.
    bool finish() {
        int status = 0;
        return waitpid(child_, &status, 0) == child_ && status == 0;
    }

private:
    UniqueFd read_end_;
    int child_;
};

bool put(int fd, const std::string& text) {
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Whether the process is asleep within some seconds.
bool falls_asleep(int pid) {
    for (int i = 0; i < 5000; ++i, usleep(1000)) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string number, name, state;
        file >> number >> name >> state;
        if (state == "S")
            return true;
    }
    return false;
}

TEST_F(MessageSource, MessageGainsALineFeedWhateverItEndsWith) {
    expect_one_more_line_feed("a\nb");
    expect_one_more_line_feed("a\nb\n");
    expect_one_more_line_feed("a\n\n");
    expect_one_more_line_feed("\n");
    expect_one_more_line_feed("a\r");
}

TEST_F(MessageSource, EmptyMessageIsALineFeed) {
    expect_one_more_line_feed("");
}

TEST_F(MessageSource, BytesAreKeptAsTheyAre) {
    std::string all;
    for (int value = 0; value < 256; ++value)
        all += static_cast<char>(value);
    expect_one_more_line_feed(all + "\r\n\n\r" + all);
}

TEST_F(MessageSource, MessagesAroundTheBlockSizeAreWhole) {
    for (const size_t size : std::initializer_list<size_t>{65535, 65536, 65537, 131072, 1000000}) {
        std::string message;
        for (size_t i = 0; message.size() < size; ++i)
            message += std::to_string(i) + (i % 7 == 0 ? "\n" : " ");
        expect_one_more_line_feed(message.substr(0, size));
    }
}

TEST_F(MessageSource, FileIsReadFromWhereItStands) {
    write_file(kInput, "beforebehind");
    const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
    lseek(input.get(), 6, SEEK_SET);
    EXPECT_EQ(read_from(input.get()), "behind\n");
}

TEST_F(MessageSource, PipeIsReadPieceByPieceToItsEnd) {
    FedPipe input(0, [](int fd) { return put(fd, "a\n") && put(fd, "b") && put(fd, "c\n"); });
    EXPECT_EQ(read_from(input.get()), "a\nbc\n\n");
    EXPECT_EQ(read_file(kCopy), "a\nbc\n\n");
    EXPECT_TRUE(input.finish());
}

TEST_F(MessageSource, NonBlockingPipeIsWaitedForAsleep) {
    FedPipe input(O_NONBLOCK, [](int fd) {
        return falls_asleep(getppid()) && put(fd, "late\n") && falls_asleep(getppid()) &&
               put(fd, "later\n");
    });
    EXPECT_EQ(read_from(input.get()), "late\nlater\n\n");
    EXPECT_TRUE(input.finish());
}

TEST_F(MessageSource, SignalsDoNotEndTheMessage) {
    write_file(kInput, "text");
    const isolated::Outcome outcome = isolated::run([] {
        const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
        fault::arm(fault::Call::read, 1, EINTR);
        return read_from(input.get());
    });
    EXPECT_EQ(outcome.result, "text\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(MessageSource, TextIsWholeWhereTheCopyCantBeWritten) {
    write_file(kInput, "text");
    const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    std::string text;
    EXPECT_EQ(standard_error_of([&] {
                  const DwString got = read_message(input.get(), full.get());
                  text.assign(got.data(), got.length());
              }),
              "");
    EXPECT_EQ(text, "text\n");
}

TEST_F(MessageSource, CopyOnAFullDiskIsABeginningOfTheMessage) {
    const std::string message(300000, 'x');
    FedPipe input(0, [&](int fd) { return put(fd, message); });
    const SmallTmp tmp(64);
    expect_same(read_from(input.get()), message + "\n");
    const std::string copy = read_file(kCopy);
    EXPECT_GT(copy.size(), 0U);
    EXPECT_LT(copy.size(), message.size());
    EXPECT_EQ(copy.find('\n'), std::string::npos);
    EXPECT_TRUE(input.finish());
}

TEST_F(MessageSource, CopyHoldsNothingBehindTheFirstFailure) {
    write_file(kInput, std::string(200000, 'x'));
    const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
    refused_writes = 1;
    expect_same(read_from(input.get()), std::string(200000, 'x') + "\n");
    EXPECT_EQ(refused_writes, 0);
    EXPECT_EQ(read_file(kCopy), "");
}

// A message that can't be read ends the run, and nobody gets half of it.

TEST_F(MessageSource, ReadErrorEndsTheRunWithALine) {
    const UniqueFd input(open("/tmp", O_RDONLY | O_CLOEXEC));
    write_file("/tmp/qrx-autoresponder-XXXXXX", "the run's copy");
    EXPECT_EXIT(read_from(input.get()), ExitedWithCode(0),
                Eq("autoresponder: Failed to read the message from standard input: "
                   "Is a directory (21)\n"));
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{"copy"});
}

TEST_F(MessageSource, ReadErrorBehindSomeTextEndsTheRunToo) {
    write_file(kInput, "text");
    const isolated::Outcome outcome = isolated::run([] {
        const UniqueFd input(open(kInput, O_RDONLY | O_CLOEXEC));
        fault::arm(fault::Call::read, 2, EIO);
        return read_from(input.get());
    });
    EXPECT_OUTCOME(outcome, 0, "",
                   "autoresponder: Failed to read the message from standard input: "
                   "Input/output error (5)\n");
}

TEST_F(MessageSource, ClosedDescriptorEndsTheRun) {
    EXPECT_EXIT(read_from(-1), ExitedWithCode(0),
                Eq("autoresponder: Failed to read the message from standard input: "
                   "Bad file descriptor (9)\n"));
}

} // namespace
