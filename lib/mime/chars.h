// Byte classes and comparisons of mail syntax, independent of the locale.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace mime {

constexpr bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// What separates tokens: every byte up to the space. 8-bit bytes belong to words.
constexpr bool separates_tokens(char c) {
    return static_cast<unsigned char>(c) <= ' ';
}

constexpr char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Whether `left` is `lower_case`, which holds no upper-case letter, without regard to ASCII case.
constexpr bool equals_ignoring_case(std::string_view left, std::string_view lower_case) {
    if (left.size() != lower_case.size())
        return false;
    for (size_t i = 0; i < left.size(); ++i) {
        if (to_lower(left[i]) != lower_case[i])
            return false;
    }
    return true;
}

// A set of bytes with constant-time membership.
class ByteSet {
public:
    constexpr explicit ByteSet(std::string_view members) {
        for (char c : members)
            has_[static_cast<unsigned char>(c)] = true;
    }
    // The same set with every byte up to the space besides.
    constexpr ByteSet with_white_space() const {
        ByteSet wider = *this;
        for (size_t c = 0; c <= ' '; ++c)
            wider.has_[c] = true;
        return wider;
    }
    constexpr bool has(char c) const { return has_[static_cast<unsigned char>(c)]; }

private:
    std::array<bool, 256> has_{};
};

} // namespace mime
