#include "base64_lenient.h"
#include "complaints.h"
#include "converter.h"
#include "text_encoding.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <stdexcept>

namespace quarx::rfc1522 {
namespace {

// The byte that "=" and the up to two bytes `digits` behind it stand for. strtoul decides: a sign,
// white space and "0x" are taken as it takes them, and what it can't read is the byte 0.
char hex_byte(std::string_view digits, Complaints& complaints) {
    std::array<char, 3> buffer{};
    digits.copy(buffer.data(), 2);
    char* end = nullptr;
    const unsigned long value = std::strtoul(buffer.data(), &end, 16);
    if (end == buffer.data() && buffer[0] != '\0')
        complaints.add("Bad hex in quoted-printable string: ", buffer.data());
    return static_cast<char>(value & 0xFF);
}

std::string qp_decode(std::string_view data) {
    std::string result;
    result.reserve(data.size());
    Complaints complaints;
    for (size_t pos = 0; pos < data.size(); ++pos) {
        if (data[pos] == '_') {
            result.push_back(' ');
        } else if (data[pos] == '=') {
            const std::string_view digits = data.substr(pos + 1, 2);
            result.push_back(hex_byte(digits, complaints));
            pos += digits.size();
        } else {
            result.push_back(data[pos]);
        }
    }
    return result;
}

// The bytes of an encoded word's `data`; nothing for an encoding that is not known.
std::string decode_data(std::string_view encoding, std::string_view data) {
    if (encoding == "q" || encoding == "Q")
        return qp_decode(data);
    if (encoding == "b" || encoding == "B")
        return decode_groups(data);
    return {};
}

// Keeps the converters of a text's charsets in memory for as long as it lives. Without one that is
// open the C library loads a charset's module for each word anew, which costs a tenth of a
// millisecond and more.
class LoadedCharsets {
public:
    void keep(const std::string& charset) {
        if (kept_.size() < kMost)
            kept_.try_emplace(charset, "utf-8", charset);
    }

private:
    static constexpr size_t kMost = 512; // more than there are modules

    std::map<std::string, Converter> kept_;
};

// Appends one token without blanks to `result`: "=?" charset "?" encoding "?" data "?=" decoded,
// what follows it raw, and any other token as it is.
void rfc1522_decode_word(std::string_view word, LoadedCharsets& charsets, std::string& result) {
    const auto keep = [&](const char* complaint) {
        complain(complaint, word);
        result += word;
    };
    if (!word.starts_with("=?")) {
        result += word;
        return;
    }
    const size_t q1 = word.find('?', 2);
    if (q1 == word.npos)
        return keep("wrong rfc1522 sequence (no charset): ");
    const size_t q2 = word.find('?', q1 + 1);
    if (q2 == word.npos)
        return keep("wrong rfc1522 sequence (no encoding): ");
    const size_t end = word.find("?=", q2 + 1);
    if (end == word.npos)
        return keep("wrong rfc1522 sequence (no data): ");
    const std::string_view trailing = word.substr(end + 2);
    if (!trailing.empty())
        complain("wrong rfc1522 sequence (trailing stuff): ", word);
    const std::string charset(word.substr(2, q1 - 2));
    const std::string_view encoding = word.substr(q1 + 1, q2 - q1 - 1);
    const std::string_view data = word.substr(q2 + 1, end - q2 - 1);
    const std::string decoded = decode_data(encoding, data);
    charsets.keep(charset);
    iconvRecodePieces(decoded, charset, "utf-8", true,
                      [&](std::string_view piece) { result += piece; });
    result += trailing;
}

// Whether the run of blanks text[ws, next) stands between two encoded words. `next` may be npos.
bool is_between_words(const std::string& text, size_t ws, size_t next) {
    if (ws < 2 || text.compare(ws - 2, 2, "?=") != 0)
        return false;
    if (next == std::string::npos) // blanks at the end: meant, callers know this failure
        throw std::out_of_range("basic_string::substr");
    return text.compare(next, 2, "=?") == 0;
}

} // namespace

std::string decode(std::string text) {
    constexpr const char* kBlanks = " \t";
    LoadedCharsets charsets;
    std::string result;
    result.reserve(text.size());
    size_t pos = 0;
    while (true) {
        const size_t ws = text.find_first_of(kBlanks, pos);
        rfc1522_decode_word(std::string_view(text).substr(pos, ws - pos), charsets, result);
        if (ws == std::string::npos)
            return result;
        const size_t next = text.find_first_not_of(kBlanks, ws);
        if (!is_between_words(text, ws, next))
            result.append(text, ws, next - ws);
        if (next == std::string::npos)
            return result;
        pos = next;
    }
}

namespace {

// Whether an encoded word must write `c` as "=XX". Some of the marks are harmless in headers; the
// set is kept as it is.
bool rfc1522_nonprintable(char c) {
    constexpr std::string_view kMarks = "!\"()*+-/=?_";
    const auto byte = static_cast<unsigned char>(c);
    return byte < 32 || byte >= 128 || kMarks.find(c) != std::string_view::npos;
}

std::string qp_encode(const std::string& text) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string result;
    result.reserve(3 * text.size());
    for (const char c : text) {
        if (c == ' ') {
            result.push_back('_');
        } else if (rfc1522_nonprintable(c)) {
            const auto byte = static_cast<unsigned char>(c);
            result.push_back('=');
            result.push_back(kDigits[byte >> 4]);
            result.push_back(kDigits[byte & 15]);
        } else {
            result.push_back(c);
        }
    }
    return result;
}

} // namespace

std::string encode(std::string text) {
    if (std::none_of(text.begin(), text.end(), rfc1522_nonprintable))
        return text;
    if (text.starts_with(' '))
        return " =?utf-8?Q?" + qp_encode(text.substr(1)) + "?=";
    return "=?utf-8?Q?" + qp_encode(text) + "?=";
}

} // namespace quarx::rfc1522
