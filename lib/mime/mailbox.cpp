#include "mailbox.h"

#include "address_tokens.h"
#include "views.h"

#include <algorithm>

namespace mime {

namespace {

// One half of a mailbox: atoms (words, and either quoted strings or literals) with dots between.
struct Half {
    size_t begin = 0;
    size_t end = 0;    // where its last token ends
    size_t length = 0; // of its tokens together
    Token behind{};    // the first token that does not belong to it
    bool valid = true; // no two atoms side by side

    bool empty() const { return length == 0; }
};

Half read_half(std::string_view address, size_t at, TokenKind other_atom) {
    Half half;
    bool after_atom = false;
    for (;;) {
        const Token token = next_token(address, at);
        const bool atom = token.kind == TokenKind::kWord || token.kind == other_atom;
        if (!atom && !token.is('.')) {
            half.behind = token;
            return half;
        }
        if (half.empty())
            half.begin = token.begin;
        half.valid = half.valid && !(atom && after_atom);
        half.end = token.end;
        half.length += token.end - token.begin;
        after_atom = atom;
        at = token.end;
    }
}

// The token texts of a half put together. A lone CR, all that unfolding leaves of line ends, is one
// blank.
DwString text_of(const DwString& field, std::string_view address, const Half& half) {
    const std::string_view whole = address.substr(half.begin, half.end - half.begin);
    if (whole.size() == half.length && whole.find('\r') == std::string_view::npos)
        return part_of(field, whole);
    std::string text;
    text.reserve(half.length);
    for (size_t at = half.begin; at < half.end;) {
        const Token token = next_token(address, at);
        text.append(address, token.begin, token.end - token.begin);
        at = token.end;
    }
    std::replace(text.begin(), text.end(), '\r', ' ');
    return {text.data(), text.size()};
}

} // namespace

std::unique_ptr<DwMailbox> make_mailbox(const DwString& field, std::string_view address) {
    const Half local = read_half(address, 0, TokenKind::kQuoted);
    if (!local.valid || local.empty() || !local.behind.is('@'))
        return DwMailbox::invalid();
    const Half domain = read_half(address, local.behind.end, TokenKind::kLiteral);
    if (!domain.valid || domain.empty() || domain.behind.kind != TokenKind::kEnd)
        return DwMailbox::invalid();
    return DwMailbox::valid(text_of(field, address, local), text_of(field, address, domain));
}

std::string_view without_route(std::string_view address) {
    Token token = next_token(address, 0);
    if (!token.is('@'))
        return address;
    while (token.kind != TokenKind::kEnd && !token.is(':'))
        token = next_token(address, token.end);
    return address.substr(token.end);
}

} // namespace mime
