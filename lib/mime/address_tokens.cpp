#include "address_tokens.h"

#include "chars.h"
#include "enclosed.h"

namespace mime {

namespace {

constexpr std::string_view kSpecials = "()<>@,;:\\\".[]";
constexpr ByteSet kWordEnds = ByteSet(kSpecials).with_white_space();

Token enclosed(TokenKind kind, size_t begin, size_t end, size_t text_size) {
    if (end == std::string_view::npos)
        return {TokenKind::kError, begin, text_size, '\0'};
    return {kind, begin, end, '\0'};
}

} // namespace

Token next_token(std::string_view text, size_t at) {
    while (at < text.size() && (separates_tokens(text[at]) || text[at] == '(')) {
        const size_t begin = at;
        at = text[at] == '(' ? skip_comment(text, at) : at + 1;
        if (at == std::string_view::npos)
            return {TokenKind::kError, begin, text.size(), '\0'};
    }
    if (at >= text.size())
        return {TokenKind::kEnd, text.size(), text.size(), '\0'};
    const char first = text[at];
    if (first == '"')
        return enclosed(TokenKind::kQuoted, at, skip_enclosed(text, at, '"'), text.size());
    if (first == '[')
        return enclosed(TokenKind::kLiteral, at, skip_enclosed(text, at, ']'), text.size());
    if (kWordEnds.has(first))
        return {TokenKind::kSpecial, at, at + 1, first};
    size_t end = at + 1;
    while (end < text.size() && !kWordEnds.has(text[end]))
        ++end;
    return {TokenKind::kWord, at, end, '\0'};
}

} // namespace mime
