// Quoted-printable (RFC 2045 section 6.7).
#include "chars.h"
#include "mimelib.h"
#include "views.h"

#include <array>
#include <cstring>
#include <string_view>

namespace {

constexpr std::array<signed char, 256> kHexDigits = [] {
    std::array<signed char, 256> digits{};
    digits.fill(-1);
    for (signed char value = 0; value < 16; ++value) {
        digits[static_cast<unsigned char>("0123456789ABCDEF"[value])] = value;
        digits[static_cast<unsigned char>("0123456789abcdef"[value])] = value;
    }
    return digits;
}();

// The byte that "=" at the start of `text` and the two digits behind it stand for, or -1.
int escaped_byte(std::string_view text) {
    if (text.size() < 3)
        return -1;
    const int high = kHexDigits[static_cast<unsigned char>(text[1])];
    const int low = kHexDigits[static_cast<unsigned char>(text[2])];
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// Writes a line without its line end to `out`; returns behind it. Clears `well_formed` where an "="
// stands for nothing.
char* decode_line(std::string_view line, char* out, bool& well_formed) {
    while (!line.empty()) {
        if (line.front() == '=') {
            const int byte = escaped_byte(line);
            well_formed = well_formed && byte >= 0;
            *out++ = byte < 0 ? '=' : static_cast<char>(byte);
            line.remove_prefix(byte < 0 ? 1 : 3);
        } else {
            const size_t run = std::min(line.find('='), line.size());
            std::memcpy(out, line.data(), run);
            out += run;
            line.remove_prefix(run);
        }
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
        out = decode_line(line, out, well_formed);
        if (ended && !joined)
            *out++ = '\n';
        text.remove_prefix(ended ? line_feed + 1 : text.size());
    }
    decoded.finish(out);
    dest = decoded;
    return well_formed ? 0 : -1;
}
