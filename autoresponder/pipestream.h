#pragma once

// An output stream into a child process: the write end of a pipe whose other end is the child's
// standard input. Destroying it closes the pipe, so that the child sees the end of its input.

#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <ios>
#include <ostream>
#include <unistd.h>

// How a stream handle that popen(3) gave is closed.
struct PipeCloseStrategy {
    static void close(FILE* handle) { pclose(handle); }
};

// Makes a handle stream write-only.
struct OutputStreamStrategy {
    using stream_type = std::ostream;
    static constexpr std::ios_base::openmode kMode = std::ios_base::out;
};

// A standard stream over a stream handle or a bare descriptor, which it owns and closes. The stream
// is in a failed state when the descriptor can't be used.
template <class CloseStrategy, class StreamStrategy>
class basic_handlestream : public StreamStrategy::stream_type, private StreamStrategy {
public:
    basic_handlestream(const basic_handlestream&) = delete;
    basic_handlestream& operator=(const basic_handlestream&) = delete;

    ~basic_handlestream() override {
        if (handle_ != nullptr)
            CloseStrategy::close(handle_);
    }

protected:
    // `handle` may be null: the stream is then built over the descriptor alone.
    basic_handlestream(FILE* handle, int fd)
        : StreamStrategy::stream_type(nullptr), handle_(handle),
          buffer_(fd, StreamStrategy::kMode, kBufferBytes) {
        this->rdbuf(&buffer_);
        if (!buffer_.is_open()) {
            ::close(fd); // the buffer has not taken it, and the child waits for its end
            this->setstate(std::ios_base::failbit);
        }
    }

private:
    static constexpr size_t kBufferBytes = 8192;

    FILE* handle_;
    __gnu_cxx::stdio_filebuf<char> buffer_;
};

class ofd_pipestream : public basic_handlestream<PipeCloseStrategy, OutputStreamStrategy> {
public:
    // Takes `fd`, the write end of a pipe.
    explicit ofd_pipestream(int fd) : basic_handlestream(nullptr, fd) {}
};
