#include "complaints.h"

#include <iostream>

namespace quarx {

void write_complaints(std::string_view lines) {
    std::cerr << lines << std::flush;
}

} // namespace quarx
