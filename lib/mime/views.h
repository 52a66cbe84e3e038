// From the library's strings to plain views and back.
#pragma once

#include "mimelib.h"

#include <string_view>

namespace mime {

inline std::string_view view(const DwString& text) {
    return {text.data(), text.length()};
}

// `piece`, which lies inside of `whole`, as a string that shares its buffer.
inline DwString part_of(const DwString& whole, std::string_view piece) {
    return piece.empty()
               ? DwString()
               : DwString(whole, static_cast<size_t>(piece.data() - whole.data()), piece.size());
}

// Where the line that `at` is in ends: the position behind its LF, or the text's end.
inline size_t next_line(std::string_view text, size_t at) {
    const size_t line_feed = text.find('\n', at);
    return line_feed == std::string_view::npos ? text.size() : line_feed + 1;
}

} // namespace mime
