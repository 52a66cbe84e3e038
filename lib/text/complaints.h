#pragma once

// The text functions' lines about malformed input, and where they go.

#include <string>
#include <string_view>

namespace quarx {

// Writes whole lines to standard error at once. The library's own, alone in its object file, writes
// to std::cerr. A program that has no other use for that stream may define the function itself,
// with the same bytes: the archive's is then left out of it, and with it the eight standard streams
// and their start (ld(1), on members of archives).
void write_complaints(std::string_view lines);

// Lines about malformed input, written to standard error in the order they come and in large
// pieces: a hostile text has millions of them. One for each encoded word, so that nothing is lost
// to an exception that nobody catches, which runs no destructors.
class Complaints {
public:
    Complaints() = default;
    Complaints(const Complaints&) = delete;
    Complaints& operator=(const Complaints&) = delete;
    ~Complaints() { write(); }

    // One line: `what`, directly followed by `about`.
    void add(std::string_view what, std::string_view about) {
        lines_.append(what).append(about).push_back('\n');
        if (lines_.size() >= kLimit)
            write();
    }

private:
    static constexpr size_t kLimit = 16384;

    void write() {
        if (!lines_.empty())
            write_complaints(lines_);
        lines_.clear();
    }

    std::string lines_;
};

inline void complain(std::string_view what, std::string_view about) {
    Complaints().add(what, about);
}

} // namespace quarx
