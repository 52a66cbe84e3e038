#include "text_encoding.h"

#include "complaints.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string_view>

namespace quarx {
namespace {

// Lines about malformed input, written to standard error in the order they come and in large
// pieces: a hostile text has millions of them.
class Complaints {
public:
    Complaints() = default;
    Complaints(const Complaints&) = delete;
    Complaints& operator=(const Complaints&) = delete;
    ~Complaints() { write(); }

    void add(std::string_view what, std::string_view about) {
        lines_.append(what).append(about).push_back('\n');
        if (lines_.size() >= kLimit)
            write();
    }

private:
    static constexpr size_t kLimit = 16384;

    void write() {
        if (!lines_.empty())
            write_complaints(lines_);
        lines_.clear();
    }

    std::string lines_;
};

void complain(std::string_view what, std::string_view about) {
    Complaints().add(what, about);
}

// iconv_open(3), which takes time that grows with the square of a name's suffixes
// ("...//IGNORE,IGNORE,..."), for names of up to a length that no charset's comes near.
iconv_t open_converter(const std::string& to, const std::string& from) {
    constexpr size_t kLongestName = 256;
    for (const std::string* name : {&to, &from}) {
        if (strnlen(name->c_str(), kLongestName + 1) > kLongestName) {
            errno = EINVAL;
            return reinterpret_cast<iconv_t>(-1);
        }
    }
    return iconv_open(to.c_str(), from.c_str());
}

bool is_utf8(const std::string& charset) {
    return strcasecmp(charset.c_str(), "utf-8") == 0;
}

// Whether the C library takes the name for one with `known` in it: it leaves case and most marks
// out of account.
bool is_named(const std::string& charset, std::string_view known) {
    std::string name;
    for (const char c : charset)
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            name += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name.find(known) != name.npos;
}

// Whether the charset holds back a letter for the mark behind it and loses it between two calls.
bool loses_letters(const std::string& charset) {
    return is_named(charset, "1390") || is_named(charset, "1399");
}

// An iconv descriptor, closed on every path.
class Converter {
public:
    Converter(const std::string& to, const std::string& from)
        : cd_(open_converter(to, from)),
          may_cut_((is_utf8(to) || is_utf8(from)) && to.find('/') == to.npos && !loses_letters(to)),
          is_from_utf7_(is_named(from, "UTF7")) {}
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter() {
        const int saved_errno = errno;
        if (is_open())
            iconv_close(cd_);
        errno = saved_errno;
    }

    bool is_open() const { return cd_ != kNone; }

    // Whether the result is the same however the text is cut up into calls. It is not for targets
    // such as "...//IGNORE" and "...//TRANSLIT", nor where a source that holds back a letter for
    // the accent behind it (CP1255) meets a target that lacks the letter; UTF-8 has all and holds
    // none. In UTF-7 it is for pieces that end behind a blank.
    bool may_cut() const { return may_cut_; }
    bool is_from_utf7() const { return is_from_utf7_; }

    // What iconv_close(3) returns; the descriptor is gone in either case.
    int close() {
        const iconv_t cd = cd_;
        cd_ = kNone;
        return iconv_close(cd);
    }

    // One iconv(3) call. Returns the `errno` of the call, 0 for none.
    int convert(char*& in, size_t& in_left, char*& out, size_t& out_left) {
        errno = 0;
        iconv(cd_, &in, &in_left, &out, &out_left);
        return errno;
    }

private:
    // What iconv_open(3) returns for "none": all ones.
    inline static const iconv_t kNone = reinterpret_cast<iconv_t>(-1);

    iconv_t cd_;
    bool may_cut_;
    bool is_from_utf7_;
};

// How much of the text one iconv call is shown. What iconv has read ahead of an invalid sequence or
// of a full buffer it reads again in the next call, so a window is small enough to seldom fill the
// buffer, and smaller still where the text is bad.
constexpr size_t kWindow = 1024;
constexpr size_t kWindowAfterInvalid = 16;

// Where the calls for a text end.
class Cuts {
public:
    Cuts(const Converter& converter, std::string_view text) : converter_(converter), text_(text) {}

    // How much to show from `at` on: `window` bytes or somewhat more.
    size_t shown(size_t at, size_t window) {
        const size_t rest = text_.size() - at;
        if (!converter_.may_cut() || window >= rest)
            return rest;
        return converter_.is_from_utf7() ? behind_a_blank(at, window) : window;
    }

private:
    // At an invalid character, UTF-7 falls back behind the last valid one, be it in the middle of
    // other text; it can't do so into an earlier call. Behind a blank it is where a call begins.
    size_t behind_a_blank(size_t at, size_t window) {
        const size_t last = at + window - 1;
        if (blank_ < last)
            blank_ = text_.find_first_of(" \n", last);
        const size_t end = blank_ < text_.size() ? blank_ + 1 : text_.size();
        const size_t more = end - at - window;
        if (more > patience_)
            return window;
        patience_ -= more;
        return window + more;
    }

    const Converter& converter_;
    std::string_view text_;
    size_t blank_ = 0; // the first at or behind the last place that was asked for
    // How many bytes to show beyond the windows, for invalid text that would be read over and over.
    size_t patience_ = size_t{16} << 20;
};

// What takes a piece of the result; `left` bytes of the text are still to come.
using Taker = std::function<void(std::string_view piece, size_t left)>;

// Hands `text`, recoded, to `take`. Returns 0, or the `errno` of the call that ended it.
int recode(Converter& converter, std::string_view text, bool skip_invalid, const Taker& take) {
    std::array<char, 4096> buffer;
    char* in = const_cast<char*>(text.data()); // iconv(3) reads it only
    size_t in_left = text.size();
    size_t window = kWindow;
    Cuts cuts(converter, text);
    while (in_left != 0) {
        const size_t shown = cuts.shown(text.size() - in_left, window);
        size_t shown_left = shown;
        char* out = buffer.data();
        size_t out_left = buffer.size();
        const int error = converter.convert(in, shown_left, out, out_left);
        const bool moved = shown_left < shown;
        in_left -= shown - shown_left;
        take({buffer.data(), buffer.size() - out_left}, in_left);

        if (error == EILSEQ && skip_invalid) {
            // Targets such as "...//IGNORE" report it with nothing left to step over.
            if (in_left == 0)
                break;
            ++in;
            --in_left;
            take("?", in_left);
            window = kWindowAfterInvalid;
        } else if (error == EINVAL && shown_left < in_left) { // the window's end cut a sequence
            window = moved ? kWindow : 2 * shown;
        } else if ((error == 0 || error == E2BIG) && moved) {
            window = std::min(2 * window, kWindow);
        } else {
            return error != 0 ? error : EINVAL; // a call that did not move never would
        }
    }
    return 0;
}

void recode_or_throw(std::string_view text, const std::string& from, const std::string& to,
                     bool skip_invalid, const Taker& take) {
    Converter converter(to, from);
    if (!converter.is_open())
        throw std::runtime_error("Cannot convert from " + from + " to " + to);
    const int error = recode(converter, text, skip_invalid, take);
    if (error != 0) {
        errno = error;
        throw std::runtime_error("Conversion from " + from + " to " + to);
    }
    // "utf-8" is part of the text, whatever the target was.
    if (converter.close() == -1)
        throw std::runtime_error("Closing conversion from " + from + " to utf-8 failed");
}

// Makes room for `more` bytes and, going by what the text has come to so far, for what is left of
// it.
void make_room(std::string& result, size_t more, size_t text_size, size_t left) {
    const size_t wanted = result.size() + more;
    if (wanted <= result.capacity())
        return;
    const size_t read = std::max<size_t>(text_size - left, 1);
    const size_t per_byte = (wanted + read - 1) / read;
    result.reserve(wanted + per_byte * left);
}

} // namespace

std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid) {
    std::string result;
    recode_or_throw(text, from, to, skipInvalid, [&](std::string_view piece, size_t left) {
        make_room(result, piece.size(), text.size(), left);
        result.append(piece);
    });
    return result;
}

void iconvRecode(std::string_view text, const std::string& from, const std::string& to,
                 bool skipInvalid, const std::function<void(std::string_view piece)>& take) {
    recode_or_throw(text, from, to, skipInvalid,
                    [&](std::string_view piece, size_t) { take(piece); });
}

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

} // namespace

std::string base64_decode(const std::string& text) {
    return decode_groups(text);
}

namespace rfc1522 {
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
    const std::string decoded = decode_data(word.substr(q1 + 1, q2 - q1 - 1), //
                                            word.substr(q2 + 1, end - q2 - 1));
    charsets.keep(charset);
    iconvRecode(decoded, charset, "utf-8", true, [&](std::string_view piece) { result += piece; });
    result += trailing;
}

// Whether the run of blanks text[ws, next) stands between two encoded words. `next` may be npos.
bool is_between_words(const std::string& text, size_t ws, size_t next) {
    // In 32 bits npos wraps to 1 and passes: a text that ends in "?=" and blanks fails below. This
    // is meant; callers know that failure.
    const std::uint32_t look_ahead_end = static_cast<std::uint32_t>(next) + 2;
    if (ws < 2 || look_ahead_end > text.size() || text.compare(ws - 2, 2, "?=") != 0)
        return false;
    if (next == std::string::npos)
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

} // namespace rfc1522
} // namespace quarx
