#pragma once

#include <string>
#include <string_view>

namespace quarx {

// base64_decode() of text_encoding.h, for a part of a text.
std::string decode_groups(std::string_view text);

} // namespace quarx
