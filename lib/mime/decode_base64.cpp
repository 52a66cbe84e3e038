// Base64 (RFC 2045 section 6.8).
#include "mimelib.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kNoSymbol = 0x80000000; // not in any group of four six-bit symbols

using Table = std::array<uint32_t, 256>;

// What each byte is worth as the symbol that stands `shift` bits from the right of its group.
constexpr Table place(int shift) {
    Table table{};
    table.fill(kNoSymbol);
    for (uint32_t value = 0; value < kAlphabet.size(); ++value)
        table[static_cast<unsigned char>(kAlphabet[value])] = value << shift;
    return table;
}

constexpr Table kFirst = place(18);
constexpr Table kSecond = place(12);
constexpr Table kThird = place(6);
constexpr Table kFourth = place(0);

// The place of decoding: what is left of the input, and where the output goes.
struct Progress {
    const unsigned char* in;
    const unsigned char* end;
    char* out;
    bool strange = false; // a byte passed over that is no white space
    uint32_t group = 0;   // the symbols of a group not yet complete
    int symbols = 0;      // how many they are
};

void put(Progress& at, uint32_t group, int bytes) {
    for (int shift = 16; bytes > 0; --bytes, shift -= 8)
        *at.out++ = static_cast<char>(group >> shift & 0xff);
}

// As long as the input goes on with four symbols in a row.
void decode_whole_groups(Progress& at) {
    const unsigned char* in = at.in;
    char* out = at.out;
    for (; at.end - in >= 4; in += 4, out += 3) {
        const uint32_t group = kFirst[in[0]] | kSecond[in[1]] | kThird[in[2]] | kFourth[in[3]];
        if (group & kNoSymbol)
            break;
        out[0] = static_cast<char>(group >> 16);
        out[1] = static_cast<char>(group >> 8 & 0xff);
        out[2] = static_cast<char>(group & 0xff);
    }
    at.in = in;
    at.out = out;
}

// Byte by byte, until no group is begun. False at the end of the input.
bool decode_broken_group(Progress& at) {
    do {
        if (at.in == at.end || *at.in == '=')
            return false;
        const unsigned char byte = *at.in++;
        const uint32_t symbol = kFourth[byte];
        if (symbol == kNoSymbol) {
            at.strange = at.strange || byte > ' ';
            continue;
        }
        at.group = at.group << 6 | symbol;
        at.symbols = (at.symbols + 1) % 4;
        if (at.symbols == 0)
            put(at, std::exchange(at.group, 0), 3);
    } while (at.symbols != 0);
    return true;
}

} // namespace

int DwDecodeBase64(const DwString& source, DwString& dest) {
    DwString decoded;
    const auto* in = reinterpret_cast<const unsigned char*>(source.data());
    Progress at{in, in + source.length(), decoded.start_over(source.length() / 4 * 3 + 3)};
    do {
        decode_whole_groups(at);
    } while (decode_broken_group(at));
    if (at.symbols > 1)
        put(at, at.group << 6 * (4 - at.symbols), at.symbols - 1);
    decoded.finish(at.out);
    dest = decoded;
    return at.strange || at.symbols == 1 ? -1 : 0;
}
