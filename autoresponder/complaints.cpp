// The program's own writer of the text functions' complaints: it keeps the C++ streams, whose start
// every run would pay for, out of the program.

#include "lib/text/complaints.h"

#include <cstdio>

void quarx::write_complaints(std::string_view lines) {
    std::fwrite(lines.data(), 1, lines.size(), stderr);
    std::fflush(stderr);
}
