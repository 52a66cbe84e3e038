// The configuration reader once more, obvious and slow, for comparison: line by line over copies,
// with the trimming rule told by counting instead of by a mark.
#pragma once

#include <cctype>
#include <map>
#include <string>

inline std::map<std::string, std::string> read_slowly(std::string content) {
    const std::string space = " \t\n\v\f\r";
    std::map<std::string, std::string> variables;
    while (!content.empty()) {
        std::string line = content.substr(0, content.find('\n'));
        if (line.size() < content.size())
            line += '\n';
        content.erase(0, line.size());

        line = line.substr(0, line.find('\0'));
        line.erase(0, line.find_first_not_of(space));
        line = line.substr(0, line.find('#'));

        std::string name;
        while (!line.empty() && (isalnum(static_cast<unsigned char>(line[0])) || line[0] == '_')) {
            name += line[0];
            line.erase(0, 1);
        }
        const size_t gap = line.find_first_not_of(space);
        if (gap == 0 || gap == std::string::npos)
            continue;
        std::string value = line.substr(gap);
        const size_t trailing = value.size() - 1 - value.find_last_not_of(space);
        if (trailing % 2 == 1)
            value.pop_back();
        variables[name] = value;
    }
    return variables;
}
