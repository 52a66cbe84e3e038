#include "base64_lenient.h"

#include "complaints.h"
#include "text_encoding.h"

#include <array>
#include <cstdint>

namespace quarx {
namespace {

// What base64Take makes of a byte: a value 0..63, or one of these.
constexpr std::uint8_t kBlank = 64;
constexpr std::uint8_t kBad = 65;

constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kBad);
    constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::uint8_t next = 0;
    for (const char c : alphabet)
        values[static_cast<unsigned char>(c)] = next++;
    for (const char c : std::string_view("\t\n\r "))
        values[static_cast<unsigned char>(c)] = kBlank;
    return values;
}();

// The value of the next symbol at `pos`, which moves behind it and behind all that is skipped
// before it. At the end of the text and at "=" the value is 0 and `pos` stays there.
unsigned base64Take(std::string_view text, size_t& pos, Complaints& complaints) {
    while (pos < text.size() && text[pos] != '=') {
        const char symbol = text[pos++];
        const unsigned value = kBase64Values[static_cast<unsigned char>(symbol)];
        if (value < kBlank)
            return value;
        if (value == kBad)
            complaints.add("Bad base64 symbol: ", std::string_view(&symbol, 1));
    }
    return 0;
}

} // namespace

std::string decode_groups(std::string_view text) {
    std::string result;
    result.reserve(text.size() / 4 * 3 + 3);
    Complaints complaints;
    size_t pos = 0;
    while (true) {
        const size_t start = pos;
        const unsigned s0 = base64Take(text, pos, complaints);
        const unsigned s1 = base64Take(text, pos, complaints);
        const unsigned s2 = base64Take(text, pos, complaints);
        const unsigned s3 = base64Take(text, pos, complaints);
        const size_t consumed = pos - start;
        if (consumed == 0)
            return result;
        const std::array<char, 3> bytes = {static_cast<char>(s0 << 2 | s1 >> 4),
                                           static_cast<char>((s1 << 4 | s2 >> 2) & 0xFF),
                                           static_cast<char>((s2 << 6 | s3) & 0xFF)};
        // Skipped bytes count too; this is meant.
        result.append(bytes.data(), consumed <= 2 ? 1 : consumed == 3 ? 2 : 3);
    }
}

std::string base64_decode(const std::string& text) {
    return decode_groups(text);
}

} // namespace quarx
