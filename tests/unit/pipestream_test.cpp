// The output stream into a child process.

#include "autoresponder/pipestream.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <initializer_list>
#include <type_traits>
#include <unistd.h>

namespace {

using HandleStream = basic_handlestream<PipeCloseStrategy, OutputStreamStrategy>;

static_assert(std::is_base_of_v<HandleStream, ofd_pipestream>);
static_assert(std::is_convertible_v<ofd_pipestream*, std::ostream*>);
static_assert(std::is_convertible_v<ofd_pipestream*, std::ios*>);
static_assert(std::is_base_of_v<OutputStreamStrategy, HandleStream>);
static_assert(!std::is_convertible_v<HandleStream*, OutputStreamStrategy*>);
static_assert(!std::is_base_of_v<std::istream, ofd_pipestream>);
static_assert(!std::is_convertible_v<int, ofd_pipestream>);
static_assert(std::is_constructible_v<ofd_pipestream, int>);
static_assert(std::has_virtual_destructor_v<ofd_pipestream>);
static_assert(!std::is_copy_constructible_v<ofd_pipestream>);
static_assert(!std::is_move_constructible_v<ofd_pipestream>);
static_assert(!std::is_copy_assignable_v<ofd_pipestream>);

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

class PipestreamTest : public testing::Test {
protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        read_end = ends[0];
        write_end = ends[1];
    }
    void TearDown() override {
        close(read_end);
        std::signal(SIGPIPE, SIG_DFL);
    }

    // What the pipe holds, "EMPTY" for nothing so far, "END" for its end.
    std::string received() {
        char text[65536];
        const ssize_t got = read(read_end, text, sizeof text);
        if (got < 0)
            return errno == EAGAIN ? "EMPTY" : "ERROR";
        return got == 0 ? "END" : std::string(text, static_cast<size_t>(got));
    }

    int read_end = -1;
    int write_end = -1;
};

TEST_F(PipestreamTest, DestructionWritesTheRestAndClosesThePipe) {
    {
        ofd_pipestream stream(write_end);
        EXPECT_TRUE(stream.good());
        stream << "To: " << 42 << '\n';
        EXPECT_EQ(received(), "EMPTY") << "a short text is held back";
    }
    EXPECT_FALSE(is_open(write_end));
    EXPECT_EQ(received(), "To: 42\n");
    EXPECT_EQ(received(), "END");
}

TEST_F(PipestreamTest, FlushWritesAtOnce) {
    ofd_pipestream stream(write_end);
    stream << "text" << std::flush;
    EXPECT_EQ(received(), "text");
    EXPECT_EQ(received(), "EMPTY");
}

TEST_F(PipestreamTest, BufferHoldsBackLessThan8192Bytes) {
    ofd_pipestream stream(write_end);
    for (int i = 0; i < 8191; ++i)
        stream << 'x';
    EXPECT_EQ(received(), "EMPTY");
    stream << 'x';
    EXPECT_NE(received(), "EMPTY");
}

TEST_F(PipestreamTest, LargeTextsArriveWhole) {
    std::string all, wanted;
    {
        ofd_pipestream stream(write_end);
        for (const size_t size : std::initializer_list<size_t>{1, 8191, 8192, 8193, 20000}) {
            const std::string text(size, static_cast<char>('a' + size % 26));
            stream << text;
            wanted += text;
        }
    }
    for (std::string piece; (piece = received()) != "END";)
        all += piece;
    EXPECT_EQ(all.size(), wanted.size());
    EXPECT_TRUE(all == wanted);
}

TEST_F(PipestreamTest, BadDescriptorGivesAFailedStream) {
    close(write_end);
    ofd_pipestream stream(write_end);
    EXPECT_TRUE(stream.fail());
    stream << "text";
    EXPECT_TRUE(stream.fail());
}

TEST_F(PipestreamTest, DescriptorThatCannotBeWrittenToIsClosedAllTheSame) {
    close(write_end);
    ofd_pipestream stream(read_end);
    EXPECT_TRUE(stream.fail());
    EXPECT_FALSE(is_open(read_end));
    read_end = -1;
}

TEST_F(PipestreamTest, DescriptorThatCantBeWrittenGivesAFailedStreamAndIsClosed) {
    {
        ofd_pipestream stream(read_end);
        EXPECT_TRUE(stream.fail());
    }
    EXPECT_FALSE(is_open(read_end));
    read_end = write_end; // for the end of the case
}

TEST_F(PipestreamTest, NegativeDescriptorGivesAFailedStream) {
    close(write_end);
    ofd_pipestream stream(-1);
    EXPECT_FALSE(stream);
}

TEST_F(PipestreamTest, ReaderThatIsGoneFailsTheStreamAndNothingElse) {
    close(read_end);
    {
        ofd_pipestream stream(write_end);
        stream << "text" << std::flush;
        EXPECT_TRUE(stream.bad());
        EXPECT_EQ(errno, EPIPE);
    }
    EXPECT_FALSE(is_open(write_end));
    read_end = -1;
}

// The close rule for a stream handle of popen(3), through a stream of the test's own.

struct CountingClose {
    static inline int closed = 0;
    static inline int descriptor = -1; // of the stream's own buffer
    static inline bool buffer_was_open = false;
    static void close(FILE* handle) {
        ++closed;
        buffer_was_open = is_open(descriptor);
        PipeCloseStrategy::close(handle);
    }
};

class HandleStreamOfTest : public basic_handlestream<CountingClose, OutputStreamStrategy> {
public:
    HandleStreamOfTest(FILE* handle, int fd) : basic_handlestream(handle, fd) {}
};

TEST_F(PipestreamTest, HandleIsClosedOnceAndBeforeTheBuffer) {
    FILE* command = popen("exit 3", "w");
    ASSERT_NE(command, nullptr);
    CountingClose::closed = 0;
    CountingClose::descriptor = write_end;
    { HandleStreamOfTest stream(command, write_end); }
    EXPECT_EQ(CountingClose::closed, 1);
    EXPECT_TRUE(CountingClose::buffer_was_open);
    EXPECT_FALSE(is_open(write_end));
}

TEST_F(PipestreamTest, NullHandleIsNotClosed) {
    CountingClose::closed = 0;
    { HandleStreamOfTest stream(nullptr, write_end); }
    EXPECT_EQ(CountingClose::closed, 0);
    EXPECT_FALSE(is_open(write_end));
}

} // namespace
