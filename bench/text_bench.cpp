// Recoding against one call of iconv(3) over the whole text, the encoded-word codec and base64.

#include "bench/sample_text.h"
#include "lib/text/base64.h"
#include "lib/text/text_encoding.h"

#include <benchmark/benchmark.h>
#include <iconv.h>
#include <memory>

namespace {

constexpr size_t kTextBytes = 10 * sample::kMegabyte;

const std::string kAscii = sample::repeated(sample::kLine, kTextBytes);
const std::string kGerman =
    sample::repeated("Schöne Grüße aus Köln, von Ännchen und Jörg.\n", kTextBytes);
const std::string kRussian =
    sample::repeated("Съешь ещё этих мягких французских булок.\n", kTextBytes);
const std::string kLatin1 = quarx::iconvRecode(kGerman, "utf-8", "iso-8859-1", true);
const std::string kKoi8 = quarx::iconvRecode(kRussian, "utf-8", "koi8-r", true);
const std::string kUtf16 = quarx::iconvRecode(kRussian, "utf-8", "utf-16", true);
const std::string kIso2022 = quarx::iconvRecode(
    sample::repeated("日本語の文章。 Text\n", kTextBytes), "utf-8", "iso-2022-jp", true);

struct Case {
    const std::string& text;
    const char* from;
    const char* to;
};

void count(benchmark::State& state, const std::string& text) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

// The result gets all the room that it can need.
void one_iconv_call(benchmark::State& state, const Case& a) {
    for (auto _ : state) {
        const size_t room = 3 * a.text.size();
        const std::unique_ptr<char[]> result(new char[room]); // untouched so far
        const iconv_t cd = iconv_open(a.to, a.from);
        char* in = const_cast<char*>(a.text.data());
        char* out = result.get();
        size_t in_left = a.text.size();
        size_t out_left = room;
        iconv(cd, &in, &in_left, &out, &out_left);
        iconv_close(cd);
        benchmark::DoNotOptimize(result.get());
        if (in_left != 0)
            state.SkipWithError("iconv stopped early");
    }
    count(state, a.text);
}

void recode(benchmark::State& state, const Case& a) {
    for (auto _ : state)
        benchmark::DoNotOptimize(quarx::iconvRecode(a.text, a.from, a.to, true).data());
    count(state, a.text);
}

#define RECODING(name, ...)                                                                        \
    BENCHMARK_CAPTURE(one_iconv_call, name, Case{__VA_ARGS__})->Unit(benchmark::kMillisecond);     \
    BENCHMARK_CAPTURE(recode, name, Case{__VA_ARGS__})->Unit(benchmark::kMillisecond)

RECODING(ascii_to_utf8, kAscii, "us-ascii", "utf-8");
RECODING(plain_utf8_to_utf8, kAscii, "utf-8", "utf-8");
RECODING(german_utf8_to_utf8, kGerman, "utf-8", "utf-8");
RECODING(russian_utf8_to_utf8, kRussian, "utf-8", "utf-8");
RECODING(latin1_to_utf8, kLatin1, "iso-8859-1", "utf-8");
RECODING(koi8_to_utf8, kKoi8, "koi8-r", "utf-8");
RECODING(utf16_to_utf8, kUtf16, "utf-16", "utf-8");
RECODING(iso2022jp_to_utf8, kIso2022, "iso-2022-jp", "utf-8");
RECODING(utf8_to_latin1, kGerman, "utf-8", "iso-8859-1");
RECODING(koi8_to_cp1251, kKoi8, "koi8-r", "cp1251");

// Text in which every byte is invalid: the worst that a sender can do.
void recode_invalid(benchmark::State& state) {
    const std::string text(sample::kMegabyte, '\xff');
    for (auto _ : state)
        benchmark::DoNotOptimize(quarx::iconvRecode(text, "utf-8", "utf-8", true).data());
    count(state, text);
}
BENCHMARK(recode_invalid)->Unit(benchmark::kMillisecond);

// As the reply does it: line by line.
void base64_encode(benchmark::State& state) {
    const std::string bytes = sample::bytes(sample::kMegabyte);
    char line[64];
    for (auto _ : state)
        for (size_t at = 0; at + 45 <= bytes.size(); at += 45) {
            base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()) + at, 45, line);
            benchmark::DoNotOptimize(line);
        }
    count(state, bytes);
}
BENCHMARK(base64_encode)->Unit(benchmark::kMillisecond);

} // namespace
