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

    // Whether the result stays the same when the text is cut up into several calls. It does where
    // one side is UTF-8; not so for targets with a suffix ("...//IGNORE", "...//TRANSLIT"), nor for
    // IBM1390 and IBM1399, which lose a letter that they hold back between two calls. Elsewhere a
    // source may hold one back (CP1255) that the target lacks. From UTF-7 only cuts behind a blank
    // are safe.
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
