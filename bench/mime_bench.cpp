// The parser on 25 MB messages, and the transfer decoders.

#include "bench/sample_text.h"
#include "lib/mime/mimelib.h"
#include "lib/text/base64.h"

#include <benchmark/benchmark.h>
#include <memory>

namespace {

constexpr size_t kMessageBytes = 25 * sample::kMegabyte;
constexpr size_t kDecodedBytes = 10 * sample::kMegabyte;

DwString string_of(const std::string& text) {
    return {text.data(), text.size()};
}

void parse(benchmark::State& state, const std::string& message) {
    const DwString text = string_of(message);
    for (auto _ : state) {
        const std::unique_ptr<DwMessage> parsed(DwMessage::NewMessage(text, nullptr));
        parsed->Parse();
        size_t parts = 0;
        for (const DwBodyPart* part = parsed->Body().FirstBodyPart(); part; part = part->Next())
            ++parts;
        benchmark::DoNotOptimize(parts);
        benchmark::DoNotOptimize(parsed->Headers().From().FirstMailbox());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

constexpr char kHead[] = "From: a@b\nSubject: s\nContent-Type: multipart/mixed; boundary=b\n";

// An attachment in lines of base64.
BENCHMARK_CAPTURE(parse, large_attachment,
                  std::string(kHead) + "\n--b\n\nHello\n--b\nContent-Type: image/png\n\n" +
                      sample::repeated(std::string(76, 'x') + "\n", kMessageBytes) + "--b--\n")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parse, parts_of_60_KB,
                  std::string(kHead) + "\n" +
                      sample::repeated("--b\nContent-Type: text/plain\n\n" +
                                           sample::repeated(sample::kLine, 770),
                                       kMessageBytes) +
                      "--b--\n")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parse, short_body_lines,
                  std::string(kHead) + "\n--b\n\n" + sample::repeated("some text\n", kMessageBytes))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parse, header_fields,
                  std::string(kHead) +
                      sample::repeated("X-Header: " + std::string(60, 'v') + "\n", kMessageBytes) +
                      "\n")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parse, invalid_senders,
                  "From: " + sample::repeated("Doe, ", kMessageBytes) + "a@b\n\n")
    ->Unit(benchmark::kMillisecond);

void decode(benchmark::State& state, int (*decoder)(const DwString&, DwString&),
            const std::string& encoded) {
    const DwString source = string_of(encoded);
    for (auto _ : state) {
        DwString decoded;
        decoder(source, decoded);
        benchmark::DoNotOptimize(decoded.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(encoded.size()));
}

// As mail has it: lines of 76 characters, parted by `line_end`.
std::string base64_lines(const std::string& line_end) {
    const std::string bytes = sample::bytes(kDecodedBytes);
    std::string text;
    char line[80];
    for (size_t at = 0; at + 57 <= bytes.size(); at += 57) {
        base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()) + at, 57, line);
        text.append(line).append(line_end);
    }
    return text;
}

BENCHMARK_CAPTURE(decode, base64_lf, DwDecodeBase64, base64_lines("\n"))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, base64_crlf, DwDecodeBase64, base64_lines("\r\n"))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, quoted_printable_plain, DwDecodeQuotedPrintable,
                  sample::repeated(sample::kLine, kDecodedBytes))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, quoted_printable_umlauts, DwDecodeQuotedPrintable,
                  sample::repeated("Sch=C3=B6ne Gr=C3=BC=C3=9Fe aus K=C3=B6ln und M=C3=BCnchen=\n",
                                   kDecodedBytes))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, quoted_printable_dense, DwDecodeQuotedPrintable,
                  sample::repeated("=D0=9F=D1=80=D0=B8=D0=B2=D0=B5=D1=82=D0=BC=D0=B8=D1=80=\n",
                                   kDecodedBytes))
    ->Unit(benchmark::kMillisecond);

} // namespace
