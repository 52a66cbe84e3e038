#pragma once

// What intake makes of a message.

#include "autoresponder/mail_content.h"
#include "sandbox_test.h"

#include <string>

struct TakenIn {
    int result;
    Mail_content content;
    std::string reported; // on standard error
};

// Has parse_message read `message` from standard input; a null `recipient` leaves RESP_RECIPIENT
// unset. The copy stays under mail_file_name until the next call.
TakenIn take_in(const std::string& message, const char* recipient = "info@example.com");
