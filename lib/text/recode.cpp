#include "converter.h"
#include "text_encoding.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace quarx {
namespace {

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
        if (more > extra_bytes_left_)
            return window;
        extra_bytes_left_ -= more;
        return window + more;
    }

    const Converter& converter_;
    std::string_view text_;
    size_t blank_ = 0; // the first at or behind the last place that was asked for
    // How many bytes to show beyond the windows, for invalid text that would be read over and over.
    size_t extra_bytes_left_ = size_t{16} << 20;
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

void iconvRecodePieces(std::string_view text, const std::string& from, const std::string& to,
                       bool skipInvalid, const std::function<void(std::string_view piece)>& take) {
    recode_or_throw(text, from, to, skipInvalid,
                    [&](std::string_view piece, size_t) { take(piece); });
}

} // namespace quarx
