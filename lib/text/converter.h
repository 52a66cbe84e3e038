#pragma once

// One conversion between two charsets, as iconv(3) of the GNU C library does it.

#include <iconv.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace quarx {

// An iconv descriptor, closed on every path.
class Converter {
public:
    // Where no converter is to be had, is_open() is false and `errno` is iconv_open(3)'s.
    Converter(const std::string& to, const std::string& from);
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter();

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

    bool may_cut_;
    bool is_from_utf7_;
    iconv_t cd_; // the last one: what is made before it may throw
};

} // namespace quarx
