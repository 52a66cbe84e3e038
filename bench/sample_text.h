#pragma once

// Texts to measure with. What is measured must not depend on one text's luck, but be the same in
// each run.

#include <cstddef>
#include <string>

namespace sample {

constexpr size_t kMegabyte = 1024 * 1024;

// `piece` repeated until there are at least `size` bytes.
inline std::string repeated(const std::string& piece, size_t size) {
    std::string text;
    text.reserve(size + piece.size());
    while (text.size() < size)
        text += piece;
    return text;
}

// Bytes without a pattern, from a fixed linear congruential generator.
inline std::string bytes(size_t size) {
    std::string text;
    text.reserve(size);
    unsigned long long state = 1;
    while (text.size() < size) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        text += static_cast<char>(state >> 56);
    }
    return text;
}

constexpr char kLine[] =
    "The quick brown fox jumps over the lazy dog, and then it does so once again.\n";

} // namespace sample
