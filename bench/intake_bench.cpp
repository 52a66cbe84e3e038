// Reading the message from a file and from a pipe into the copy and the text.

#include "autoresponder/message_source.h"
#include "autoresponder/mime_parser.h"
#include "bench/sample_text.h"
#include "lib/util/unique_fd.h"
#include "lib/util/write_all.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t kMessageBytes = 25 * sample::kMegabyte;

// A large text gets fresh pages in each round, as in a process that reads one message; malloc(3)
// would keep those of the round before.
const int kFreshPages = mallopt(M_MMAP_THRESHOLD, 128 * 1024);

// A file without a name. Its blocks stay, so that what is measured isn't their allocation.
UniqueFd temporary_file() {
    char name[] = "/tmp/bench-XXXXXX";
    UniqueFd file(mkostemp(name, O_CLOEXEC));
    unlink(name);
    return file;
}

void rewind_to_start(int fd) {
    lseek(fd, 0, SEEK_SET);
}

void count(benchmark::State& state, size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

void intake_from_file(benchmark::State& state) {
    const std::string message = sample::repeated(sample::kLine, kMessageBytes);
    const UniqueFd input = temporary_file();
    write_all(input.get(), message.data(), message.size());
    const UniqueFd copy = temporary_file();
    for (auto _ : state) {
        rewind_to_start(input.get());
        rewind_to_start(copy.get());
        benchmark::DoNotOptimize(read_message(input.get(), copy.get()).length());
    }
    count(state, message.size());
}
BENCHMARK(intake_from_file)->Unit(benchmark::kMillisecond);

// The same without the text: what the system calls alone take.
void copy_file_in_blocks(benchmark::State& state) {
    const std::string message = sample::repeated(sample::kLine, kMessageBytes);
    const UniqueFd input = temporary_file();
    write_all(input.get(), message.data(), message.size());
    const UniqueFd copy = temporary_file();
    std::array<char, 65536> block;
    for (auto _ : state) {
        rewind_to_start(input.get());
        rewind_to_start(copy.get());
        for (ssize_t got; (got = read(input.get(), block.data(), block.size())) > 0;)
            write_all(copy.get(), block.data(), static_cast<size_t>(got));
    }
    count(state, message.size());
}
BENCHMARK(copy_file_in_blocks)->Unit(benchmark::kMillisecond);

// A pipe into which a thread writes `text`.
class FedPipe {
public:
    explicit FedPipe(const std::string& text) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            std::abort();
        output_.reset(ends[0]);
        feeder_ = std::jthread([&text, input = ends[1]] {
            write_all(input, text.data(), text.size());
            close(input);
        });
    }
    int get() const { return output_.get(); }

private:
    UniqueFd output_;
    std::jthread feeder_;
};

// Processor time of the reader alone is what counts here; the clock shows the writer as well.
void intake_from_pipe(benchmark::State& state) {
    const std::string message = sample::repeated(sample::kLine, kMessageBytes);
    const UniqueFd copy = temporary_file();
    for (auto _ : state) {
        rewind_to_start(copy.get());
        const FedPipe input(message);
        benchmark::DoNotOptimize(read_message(input.get(), copy.get()).length());
    }
    count(state, message.size());
}
BENCHMARK(intake_from_pipe)->Unit(benchmark::kMillisecond);

} // namespace
