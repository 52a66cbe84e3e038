// Comments, quoted strings and domain literals (RFC 822 section 3.3).
#pragma once

#include <cstddef>
#include <string_view>

namespace mime {

// Each takes the position of the opening character in `text` and returns the one behind the closing
// character, or std::string_view::npos where there is none. A backslash takes the next byte along.

// "(...)", which nest.
size_t skip_comment(std::string_view text, size_t open);

// "..." with `close` a quotation mark, [...] with `close` a bracket.
size_t skip_enclosed(std::string_view text, size_t open, char close);

} // namespace mime
