// Quoted-printable (RFC 2045 section 6.7).
#include "chars.h"
#include "mimelib.h"
#include "views.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr std::array<short, 256> kHexDigits = [] {
    std::array<short, 256> digits{};
    digits.fill(-1);
    for (short value = 0; value < 16; ++value) {
        digits[static_cast<unsigned char>("0123456789ABCDEF"[value])] = value;
        digits[static_cast<unsigned char>("0123456789abcdef"[value])] = value;
    }
    return digits;
}();

// The byte that "=" at `in` and the two digits behind it stand for, or -1.
int escaped_byte(const char* in, const char* end) {
    if (end - in < 3)
        return -1;
    const int high = kHexDigits[static_cast<unsigned char>(in[1])];
    const int low = kHexDigits[static_cast<unsigned char>(in[2])];
    return (high | low) < 0 ? -1 : high * 16 + low;
}

// How many of the eight bytes stand before the first "="; 8 where there is none.
size_t bytes_before_equals_sign(uint64_t eight_bytes) {
    constexpr uint64_t kOnes = 0x0101010101010101;
    if constexpr (std::endian::native == std::endian::big)
        eight_bytes = __builtin_bswap64(eight_bytes);
    const uint64_t zero_where_equal = eight_bytes ^ kOnes * '=';
    // The lowest bit that is set is the top bit of the first zero byte.
    const uint64_t found = (zero_where_equal - kOnes) & ~zero_where_equal & kOnes << 7;
    return static_cast<size_t>(std::countr_zero(found)) / 8;
}

// Copies what stands before the next "=" or the line's end; moves both on. The output is never
// ahead of the input, so there is room for eight bytes wherever eight are left of the text.
void copy_run(const char*& in, const char* line_end, const char* text_end, char*& out) {
    while (text_end - in >= 8) {
        uint64_t eight_bytes;
        std::memcpy(&eight_bytes, in, sizeof eight_bytes);
        std::memcpy(out, &eight_bytes, sizeof eight_bytes);
        const size_t run =
            std::min(bytes_before_equals_sign(eight_bytes), static_cast<size_t>(line_end - in));
        in += run;
        out += run;
        if (run < 8)
            return;
    }
    while (in != line_end && *in != '=')
        *out++ = *in++;
}

// Writes a line without its line end to `out`; returns behind it. Clears `well_formed` where an "="
// stands for nothing.
char* decode_line(std::string_view line, const char* text_end, char* out, bool& well_formed) {
    const char* in = line.data();
    const char* const end = in + line.size();
    while (in != end) {
        if (*in != '=') {
            copy_run(in, end, text_end, out);
            continue;
        }
        const int byte = escaped_byte(in, end);
        well_formed = well_formed && byte >= 0;
        *out++ = byte < 0 ? '=' : static_cast<char>(byte);
        in += byte < 0 ? 1 : 3;
    }
    return out;
}

std::string_view without_space_at_end(std::string_view line) {
    while (!line.empty() && (mime::is_blank(line.back()) || line.back() == '\r'))
        line.remove_suffix(1);
    return line;
}

} // namespace

int DwDecodeQuotedPrintable(const DwString& source, DwString& dest) {
    DwString decoded;
    char* out = decoded.start_over(source.length());
    std::string_view text = mime::view(source);
    bool well_formed = true;
    while (!text.empty()) {
        const size_t line_feed = text.find('\n');
        const bool ended = line_feed != std::string_view::npos;
        std::string_view line = without_space_at_end(text.substr(0, line_feed));
        const bool joined = line.ends_with('=');
        if (joined)
            line.remove_suffix(1);
        out = decode_line(line, text.data() + text.size(), out, well_formed);
        if (ended && !joined)
            *out++ = '\n';
        text.remove_prefix(ended ? line_feed + 1 : text.size());
    }
    decoded.finish(out);
    dest = decoded;
    return well_formed ? 0 : -1;
}
