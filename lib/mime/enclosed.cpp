#include "enclosed.h"

namespace mime {

size_t skip_comment(std::string_view text, size_t open) {
    size_t depth = 0;
    for (size_t at = open; at < text.size(); ++at) {
        switch (text[at]) {
        case '\\':
            ++at;
            break;
        case '(':
            ++depth;
            break;
        case ')':
            if (--depth == 0)
                return at + 1;
            break;
        default:
            break;
        }
    }
    return std::string_view::npos;
}

size_t skip_enclosed(std::string_view text, size_t open, char close) {
    for (size_t at = open + 1; at < text.size(); ++at) {
        if (text[at] == '\\')
            ++at;
        else if (text[at] == close)
            return at + 1;
    }
    return std::string_view::npos;
}

} // namespace mime
