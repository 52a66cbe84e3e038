// A message on standard input for intake, which keeps its copy in memory here.
#pragma once

#include "autoresponder/intake.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/paths.h"
#include "memory_file.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace fuzz {

// Points the name buffers of the run to names that are free, on a file system in memory.
inline void name_temporary_files() {
    std::strcpy(mail_file_name, "/dev/shm/qrx-message-XXXXXX");
    std::strcpy(resp_uu_file_name, "/dev/shm/qrx-reply-XXXXXX");
}

// What parse_message returns for `message`. Its copy stays under mail_file_name.
inline int take_in(const std::string& message, Mail_content* content) {
    static const MemoryFile input;
    input.fill(message.data(), message.size());
    dup2(input.descriptor(), STDIN_FILENO);
    setenv(paths::kRecipientVariable, "info@example.com", 1);
    return parse_message(content);
}

} // namespace fuzz
