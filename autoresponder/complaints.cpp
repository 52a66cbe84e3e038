// The program's own writer of the text functions' complaints: it keeps std::cerr and the other
// standard streams, whose start every run would pay for, out of the program. There is nothing to
// flush: stderr(3) has no buffer.

#include "lib/text/complaints.h"

#include <cstdio>

void quarx::write_complaints(std::string_view lines) {
    std::fwrite(lines.data(), 1, lines.size(), stderr);
}
