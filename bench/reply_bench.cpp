// Attachments from their files into the reply's file.

#include "autoresponder/attachments.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/response_file.h"
#include "bench/sample_text.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

long peak_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// `size` bytes to attach; what is no multiple of 45 ends in a short line.
void attach(benchmark::State& state) {
    const std::string bytes = sample::bytes(static_cast<size_t>(state.range(0)));
    const std::string folder = "/tmp";
    std::ofstream(folder + "/bench-attachment") << bytes;
    const Attachments attachments{folder, {"bench-attachment"}, ""};
    const long before = peak_kib();
    for (auto _ : state) {
        ResponseFile file;
        file.open();
        file.restart();
        write_attachments(attachments, "boundary", file);
        file.close();
        state.PauseTiming();
        unlink(resp_uu_file_name);
        state.ResumeTiming();
    }
    state.counters["grown_KiB"] = static_cast<double>(peak_kib() - before);
    state.SetBytesProcessed(state.iterations() * state.range(0));
    unlink((folder + "/bench-attachment").c_str());
}
BENCHMARK(attach)->Arg(1000)->Arg(45 << 10)->Arg(1 << 20)->Arg(25 << 20)->Unit(
    benchmark::kMicrosecond);

} // namespace
