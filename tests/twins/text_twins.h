// Naive twins of the text codecs: one step at a time, slow and obvious, written apart from them.
// They write to std::cerr and throw as the codecs do, so that outcomes compare as a whole.
#pragma once

#include <iconv.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace twin {

// iconv is shown all that is left of the text, in each call.
inline std::string recode(const std::string& text, const std::string& from, const std::string& to,
                          bool skip_invalid) {
    const auto is_too_long = [](const std::string& name) {
        return std::string(name.c_str()).size() > 256;
    };
    const iconv_t none = reinterpret_cast<iconv_t>(-1);
    const iconv_t cd =
        is_too_long(from) || is_too_long(to) ? none : iconv_open(to.c_str(), from.c_str());
    if (cd == none)
        throw std::runtime_error("Cannot convert from " + from + " to " + to);
    std::string copy = text;
    std::string result;
    char* in = copy.data();
    size_t left = copy.size();
    while (left > 0) {
        char buffer[4096];
        char* out = buffer;
        size_t room = sizeof buffer;
        errno = 0;
        iconv(cd, &in, &left, &out, &room);
        const int error = errno;
        if (error != 0 && error != E2BIG && !(error == EILSEQ && skip_invalid)) {
            iconv_close(cd);
            throw std::runtime_error("Conversion from " + from + " to " + to);
        }
        result.append(buffer, sizeof buffer - room);
        if (error == EILSEQ && left > 0) {
            in = in + 1;
            left = left - 1;
            result = result + "?";
        }
    }
    iconv_close(cd);
    return result;
}

const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline unsigned take_symbol(const std::string& text, size_t& pos) {
    if (pos >= text.size() || text[pos] == '=')
        return 0;
    const char c = text[pos];
    pos = pos + 1;
    if (c == '\t' || c == '\n' || c == '\r' || c == ' ')
        return take_symbol(text, pos);
    const size_t value = kAlphabet.find(c);
    if (value != std::string::npos)
        return static_cast<unsigned>(value);
    std::cerr << "Bad base64 symbol: " << c << std::endl;
    return take_symbol(text, pos);
}

inline std::string base64_decode(const std::string& text) {
    std::string result;
    size_t pos = 0;
    for (;;) {
        const size_t start = pos;
        unsigned group = take_symbol(text, pos) * 64 * 64 * 64;
        group += take_symbol(text, pos) * 64 * 64;
        group += take_symbol(text, pos) * 64;
        group += take_symbol(text, pos);
        const size_t consumed = pos - start;
        if (consumed == 0)
            return result;
        result += static_cast<char>(group / 65536);
        if (consumed >= 3)
            result += static_cast<char>(group / 256 % 256);
        if (consumed >= 4)
            result += static_cast<char>(group % 256);
    }
}

inline std::string q_decode(const std::string& data) {
    std::string result;
    size_t i = 0;
    while (i < data.size()) {
        if (data[i] != '=') {
            result += data[i] == '_' ? ' ' : data[i];
            i = i + 1;
            continue;
        }
        const std::string digits = data.substr(i + 1, 2);
        i = i + 1 + digits.size();
        char* end = nullptr;
        const unsigned long value = strtoul(digits.c_str(), &end, 16);
        if (end == digits.c_str() && digits.c_str()[0] != '\0')
            std::cerr << "Bad hex in quoted-printable string: " << digits.c_str() << std::endl;
        result += static_cast<char>(value % 256);
    }
    return result;
}

// The first place at or behind `from` where `what` stands, or -1.
inline long long place_of(const std::string& what, const std::string& text, long long from) {
    for (size_t i = static_cast<size_t>(from); i + what.size() <= text.size(); ++i)
        if (text.substr(i, what.size()) == what)
            return static_cast<long long>(i);
    return -1;
}

inline std::string keep_wrong(const char* why, const std::string& word) {
    std::cerr << "wrong rfc1522 sequence (" << why << "): " << word << std::endl;
    return word;
}

inline std::string decode_word(const std::string& word) {
    if (word.substr(0, 2) != "=?")
        return word;
    const long long q1 = place_of("?", word, 2);
    if (q1 < 0)
        return keep_wrong("no charset", word);
    const long long q2 = place_of("?", word, q1 + 1);
    if (q2 < 0)
        return keep_wrong("no encoding", word);
    const long long end = place_of("?=", word, q2 + 1);
    if (end < 0)
        return keep_wrong("no data", word);
    const auto part = [&](long long first, long long last) {
        return word.substr(static_cast<size_t>(first), static_cast<size_t>(last - first));
    };
    const std::string trailing = word.substr(static_cast<size_t>(end) + 2);
    if (trailing != "")
        keep_wrong("trailing stuff", word);
    const std::string encoding = part(q1 + 1, q2);
    std::string data = part(q2 + 1, end);
    if (encoding == "q" || encoding == "Q")
        data = q_decode(data);
    else if (encoding == "b" || encoding == "B")
        data = base64_decode(data);
    else
        data = "";
    return recode(data, part(2, q1), "utf-8", true) + trailing;
}

inline std::string decode(const std::string& text) {
    const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
    std::string result;
    size_t pos = 0;
    for (;;) {
        size_t ws = pos;
        while (ws < text.size() && !is_blank(text[ws]))
            ++ws;
        result += decode_word(text.substr(pos, ws - pos));
        if (ws == text.size())
            return result;
        size_t next = ws;
        while (next < text.size() && is_blank(text[next]))
            ++next;
        const bool behind_word = ws >= 2 && text[ws - 2] == '?' && text[ws - 1] == '=';
        if (next == text.size()) {
            if (behind_word)
                throw std::out_of_range("basic_string::substr");
            return result + text.substr(ws);
        }
        const bool before_word =
            next + 2 <= text.size() && text[next] == '=' && text[next + 1] == '?';
        if (!(behind_word && before_word))
            result += text.substr(ws, next - ws);
        pos = next;
    }
}

inline bool must_be_encoded(char c) {
    const int value = static_cast<signed char>(c);
    switch (c) {
    case '!':
    case '"':
    case '(':
    case ')':
    case '*':
    case '+':
    case '-':
    case '/':
    case '=':
    case '?':
    case '_':
        return true;
    default:
        return value < 32;
    }
}

inline std::string q_encode(const std::string& text) {
    std::string result;
    for (const char c : text) {
        char code[4] = {c, '\0', '\0', '\0'};
        if (c == ' ')
            code[0] = '_';
        else if (must_be_encoded(c))
            std::snprintf(code, sizeof code, "=%.2X", static_cast<unsigned>(c) & 255U);
        result += code;
    }
    return result;
}

inline std::string encode(const std::string& text) {
    bool special = false;
    for (const char c : text)
        special = special || must_be_encoded(c);
    if (!special)
        return text;
    if (text[0] == ' ')
        return " =?utf-8?Q?" + q_encode(text.substr(1)) + "?=";
    return "=?utf-8?Q?" + q_encode(text) + "?=";
}

// The bits of the bytes in one long row, cut up six by six.
inline std::string base64_encode(const std::string& bytes) {
    std::vector<bool> bits;
    for (const char c : bytes)
        for (int bit = 7; bit >= 0; --bit)
            bits.push_back(((static_cast<unsigned char>(c) >> bit) & 1) != 0);
    while (bits.size() % 6 != 0)
        bits.push_back(false);
    std::string result;
    for (size_t i = 0; i < bits.size(); i += 6) {
        size_t digit = 0;
        for (size_t k = 0; k < 6; ++k)
            digit = digit * 2 + (bits[i + k] ? 1 : 0);
        result += kAlphabet[digit];
    }
    while (result.size() % 4 != 0)
        result += '=';
    return result;
}

// The other way round. A character outside the alphabet counts as 255, which reaches into the two
// digits before it.
inline std::string base64_array_decode(const std::string& text) {
    std::string result;
    if (text.empty() || text.size() % 4 != 0)
        return result;
    unsigned padding = 0;
    if (text[text.size() - 2] == '=')
        padding = 2;
    else if (text[text.size() - 1] == '=')
        padding = 1;
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool is_last = i + 4 == text.size();
        const size_t digits = is_last ? 4 - padding : 4;
        std::uint64_t group = 0;
        for (size_t k = 0; k < digits; ++k) {
            const size_t place = kAlphabet.find(text[i + k]);
            const std::uint64_t value = place == std::string::npos ? 255 : place;
            group |= value << (6 * (3 - k));
        }
        for (size_t k = 0; k < digits - 1; ++k)
            result += static_cast<char>(group >> (16 - 8 * k));
    }
    return result;
}

} // namespace twin
