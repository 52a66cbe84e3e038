#pragma once

#include <string>

namespace quarx {

std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid);
std::string base64_decode(const std::string& text);

namespace rfc1522 {

std::string decode(std::string text);
std::string encode(std::string text);

} // namespace rfc1522
} // namespace quarx
