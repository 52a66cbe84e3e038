// print_intake <MESSAGE: what intake makes of a message on standard input, one value a line. Built
// with the bundled parser and with an installed mimelib, it tells where the two differ. It ends with
// intake's result. The copy of the message is made in the current folder and removed.
#include "autoresponder/intake.h"
#include "autoresponder/mail_content.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

void print(const char* name, const std::string& value) {
    std::printf("%s: ", name);
    for (char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && byte < 127 && c != '\\')
            std::putchar(c);
        else
            std::printf("\\x%02x", byte);
    }
    std::putchar('\n');
}

} // namespace

int main() {
    std::strcpy(mail_file_name, "print-intake-XXXXXX");
    setenv("RESP_RECIPIENT", "info@example.com", 1);
    Mail_content content;
    const int result = parse_message(&content);
    unlink(mail_file_name);
    print("sender", content.sender);
    print("subject", content.subject);
    print("date", content.date);
    print("charset", content.charset);
    for (const std::string& line : content.body)
        print("body", line);
    return result;
}
