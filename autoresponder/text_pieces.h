#pragma once

// A large text on its way to lines. Held in pieces that go as their lines are made, it is never in
// memory twice.

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

class TextPieces {
public:
    // For a text of some `expected_bytes`; it may come to more or less.
    explicit TextPieces(size_t expected_bytes) : expected_bytes_(expected_bytes) {}

    void append(std::string_view text);
    void clear() { pieces_.clear(); }

    // The lines of the whole text, which is gone then. Text behind the last line feed is a line
    // too, also when it is empty: there is always one. Each line takes what a std::string of its
    // length does, which for short lines is more than their text.
    std::vector<std::string> take_lines();

private:
    size_t count_lines() const;
    size_t bytes_to_line_end(size_t piece) const;

    size_t expected_bytes_;
    std::deque<std::string> pieces_;
};
