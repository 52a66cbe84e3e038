// The record of a message as the mimelib interface gives it: from lib/mime, or, compiled with
// QRX_SYSTEM_MIMELIB, from the system's library.
#pragma once

#include "record.h"

#include <string>

namespace parser_test {

MessageRecord parse_with_mimelib(const std::string& message);

// The transfer decoders alone.
std::string base64_with_mimelib(const std::string& text);
std::string quoted_printable_with_mimelib(const std::string& text);

} // namespace parser_test
