#pragma once

// Where the text functions' lines about malformed input go.

#include <string_view>

namespace quarx {

// Writes whole lines to standard error at once. The library's own, alone in its object file, writes
// to std::cerr. A program that has no other use for streams may define the function itself, with
// the same bytes: the archive's is then left out of it, and with it the streams and their start
// (ld(1), on members of archives).
void write_complaints(std::string_view lines);

} // namespace quarx
