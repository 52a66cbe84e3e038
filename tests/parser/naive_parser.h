// The parser's rules once more: slow, obvious, on copies of strings, sharing nothing with lib/mime.
#pragma once

#include "record.h"

#include <string>

namespace parser_test {

MessageRecord parse_naively(const std::string& message);

std::string base64_naively(const std::string& text);
std::string quoted_printable_naively(const std::string& text);

} // namespace parser_test
