#include "base64.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr char base64Chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value 0..63 of each character of the alphabet, 255 for every other byte.
constexpr std::array<std::uint8_t, 256> base64Inv = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(255);
    for (std::uint8_t value = 0; value < 64; ++value)
        values[static_cast<unsigned char>(base64Chars[value])] = value;
    return values;
}();

// The two characters of each value of 12 bits: half as many look-ups as one by one.
struct Pair {
    char high;
    char low;
};
constexpr std::array<Pair, 4096> kPairs = [] {
    std::array<Pair, 4096> pairs{};
    for (std::size_t value = 0; value != pairs.size(); ++value)
        pairs[value] = {base64Chars[value >> 6], base64Chars[value & 63]};
    return pairs;
}();

// The low 24 bits of `group` as 4 characters, the highest 6 bits first.
void write_characters(std::uint32_t group, char* out) {
    std::memcpy(out, &kPairs[group >> 12 & 4095], sizeof(Pair));
    std::memcpy(out + 2, &kPairs[group & 4095], sizeof(Pair));
}

// Four bytes as one number, the first the highest.
std::uint32_t read_number(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
}

// Six bytes as 8 characters. All are read before the first is written.
void write_two_groups(const unsigned char* bytes, char* out) {
    const std::uint32_t first = read_number(bytes) >> 8;
    const std::uint32_t second = read_number(bytes + 2);
    write_characters(first, out);
    write_characters(second, out + 4);
}

// `count` characters as 6-bit digits of one number, the first the highest.
std::uint32_t read_digits(const char* in, unsigned count) {
    std::uint32_t group = 0;
    for (unsigned i = 0; i < count; ++i)
        group = group << 6 | base64Inv[static_cast<unsigned char>(in[i])];
    return group;
}

// The highest `count` bytes of the low 24 bits of `group`.
void write_bytes(std::uint32_t group, unsigned count, unsigned char* out) {
    for (unsigned i = 0; i < count; ++i)
        out[i] = static_cast<unsigned char>(group >> (16 - 8 * i) & 0xFF);
}

} // namespace

// From the end backwards, so that no byte is overwritten before it is read when `out` is `in`.
int base64Encode(const unsigned char* in, unsigned len, char* out) {
    const std::size_t whole = len / 3;
    const unsigned rest = len % 3;
    std::size_t written = 4 * whole;
    if (rest != 0) {
        const unsigned char* last = in + 3 * whole;
        const std::uint32_t second = rest == 2 ? last[1] : 0U;
        char* end = out + written;
        write_characters(static_cast<std::uint32_t>(last[0]) << 16 | second << 8, end);
        std::memset(end + rest + 1, '=', 3 - rest);
        written += 4;
    }
    out[written] = '\0';
    std::size_t left = whole;
    if (left % 2 != 0) {
        --left;
        const unsigned char* bytes = in + 3 * left;
        write_characters(static_cast<std::uint32_t>(bytes[0] << 16 | bytes[1] << 8 | bytes[2]),
                         out + 4 * left);
    }
    while (left > 0) {
        left -= 2;
        write_two_groups(in + 3 * left, out + 4 * left);
    }
    return static_cast<int>(written);
}

unsigned base64ArrayDecode(const char* in, unsigned len, unsigned char* out) {
    if (len == 0 || len % 4 != 0)
        return 0;
    const unsigned padding = in[len - 2] == '=' ? 2 : in[len - 1] == '=' ? 1 : 0;
    const unsigned whole = len / 4 - (padding > 0 ? 1 : 0);
    for (std::size_t i = 0; i < whole; ++i)
        write_bytes(read_digits(in + 4 * i, 4), 3, out + 3 * i);
    if (padding == 0)
        return 3 * whole;
    const std::uint32_t last = read_digits(in + std::size_t{4} * whole, 4 - padding);
    write_bytes(last << (6 * padding), 3 - padding, out + std::size_t{3} * whole);
    return 3 * whole + 3 - padding;
}

unsigned base64Decode(const char* in, unsigned char* out) {
    return base64ArrayDecode(in, static_cast<unsigned>(std::strlen(in)), out);
}
