// The tokens of addresses (RFC 822 section 3.3), read from left to right, one at a time.
#pragma once

#include <cstddef>
#include <string_view>

namespace mime {

enum class TokenKind {
    kEnd,     // no more tokens
    kWord,    // 8-bit bytes included
    kQuoted,  // "..."
    kLiteral, // [...]
    kSpecial, // one of ( ) < > @ , ; : \ " . [ ]
    kError    // a comment, quoted string or literal that never ends; nothing follows it
};

struct Token {
    TokenKind kind;
    size_t begin;
    size_t end;
    char special; // of kSpecial, else NUL

    bool is(char wanted) const { return kind == TokenKind::kSpecial && special == wanted; }
};

// The first token of `text` at or behind `at`, comments and white space passed over. Reading on at
// its `end` gives the next one.
Token next_token(std::string_view text, size_t at);

} // namespace mime
