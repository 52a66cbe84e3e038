#pragma once

// The naive twin of what makes a text's lines: byte by byte, each line feed begins another one.

#include <string>
#include <vector>

namespace twin {

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines = {""};
    for (const char c : text) {
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back() += c;
    }
    return lines;
}

} // namespace twin
