// Text of mail headers and bodies: recoding between charsets, encoded words, lenient base64.
//
// All functions take and give byte strings; NUL bytes are ordinary bytes, except in charset names,
// which iconv_open(3) reads up to their first NUL. Malformed input is expected, never fatal by
// itself: it is named on standard error, one line each, and decoding goes on. Time
// and memory are linear in the input, whatever it holds.
//
// Public sources: iconv_open(3), iconv(3), iconv_close(3) of the GNU C library; encoded words as in
// RFC 1522 (now RFC 2047) sections 2 and 4; the base64 alphabet of RFC 4648 section 4.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace quarx {

// `text` recoded from charset `from` to charset `to`, both named as iconv_open(3) knows them.
// With `skipInvalid` each byte at which no valid sequence starts becomes one "?"; without it such
// a byte is an error. No closing shift sequence is written for stateful targets.
// A name of more than 256 bytes counts as unknown. The result is at most 16 times the length of
// the text plus 64 bytes (the GNU C library's charsets stay below 8 times on the way to UTF-8).
// Throws std::runtime_error: a charset is unknown, a sequence is invalid (without `skipInvalid`) or
// cut off by the end of the text; `errno` is then what the failing iconv call left.
// Each byte that becomes "?" costs some 40 ns on the way to or from UTF-8. Between two other
// charsets, and to targets such as "...//IGNORE", it can be 10 microseconds: iconv(3) is shown all
// of the text there, and has read thousands of characters ahead, which it reads again. For
// invalid UTF-7 without blanks the result is that of a single pass of iconv(3) while no more than
// 16 MiB have to be read again for it; after that it may differ.
std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid);

// The same for a text of which no second whole copy is wanted: `take` gets the result in pieces of
// at most 4096 bytes, in order. What it got before an exception is of no use.
void iconvRecodePieces(std::string_view text, const std::string& from, const std::string& to,
                       bool skipInvalid, const std::function<void(std::string_view piece)>& take);

// The bytes of base64 `text`, read in groups of four symbols up to the first "=". White space is
// skipped; any other byte outside the alphabet is named on standard error and skipped. A short last
// group gives 1, 2 or 3 bytes for 1-2, 3 or 4 and more bytes stepped over, skipped ones included;
// this is meant, so a line break behind the last whole group gives one more zero byte.
std::string base64_decode(const std::string& text);

namespace rfc1522 {

// Header `text` with its encoded words decoded to UTF-8. Blanks between two adjacent encoded words
// are dropped, all others kept; a malformed encoded word stays as it is and is named on standard
// error. Throws std::runtime_error as iconvRecode does, for the charset a word names. Throws
// std::out_of_range when `text` ends in "?=" and blanks; this is meant.
std::string decode(std::string text);

// UTF-8 `text` made safe for a header: unchanged when it holds no byte that must be encoded, else
// one Q-encoded word labelled "utf-8" over the whole text (behind a leading space, if it has one).
// The word is never split or folded, however long it gets.
std::string encode(std::string text);

} // namespace rfc1522
} // namespace quarx
