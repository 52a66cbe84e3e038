#include "autoresponder/text_pieces.h"

#include "autoresponder/process.h"

#include <algorithm>

namespace {

// Large enough to be memory of its own, which goes back to the system when it is freed.
constexpr size_t kPieceBytes = size_t{256} * 1024;
static_assert(kPieceBytes >= kMmapThresholdBytes);

// Appends the lines of `text` to `lines`, whose last one its first one continues. Returns whether
// another line begins in it.
bool split(std::string_view text, std::vector<std::string>& lines) {
    size_t end = text.find('\n');
    lines.back().append(text.substr(0, end));
    if (end == text.npos)
        return false;
    while (end != text.npos) {
        text.remove_prefix(end + 1);
        end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
    }
    return true;
}

} // namespace

void TextPieces::append(std::string_view text) {
    while (!text.empty()) {
        if (pieces_.empty())
            pieces_.emplace_back().reserve(std::min(expected_bytes_, kPieceBytes));
        else if (pieces_.back().size() == kPieceBytes)
            pieces_.emplace_back().reserve(kPieceBytes);
        std::string& last = pieces_.back();
        const size_t taken = std::min(text.size(), kPieceBytes - last.size());
        last.append(text.substr(0, taken));
        text.remove_prefix(taken);
    }
}

size_t TextPieces::count_lines() const {
    size_t count = 1;
    for (const std::string& piece : pieces_)
        count += static_cast<size_t>(std::count(piece.begin(), piece.end(), '\n'));
    return count;
}

// How much text stands before the first line feed of the pieces from number `piece` on.
size_t TextPieces::bytes_to_line_end(size_t piece) const {
    size_t bytes = 0;
    for (; piece < pieces_.size(); ++piece) {
        const size_t end = pieces_[piece].find('\n');
        if (end != std::string::npos)
            return bytes + end;
        bytes += pieces_[piece].size();
    }
    return bytes;
}

std::vector<std::string> TextPieces::take_lines() {
    std::vector<std::string> lines;
    lines.reserve(count_lines());
    lines.emplace_back().reserve(bytes_to_line_end(0));
    for (; !pieces_.empty(); pieces_.pop_front())
        if (split(pieces_.front(), lines))
            lines.back().reserve(lines.back().size() + bytes_to_line_end(1));
    return lines;
}
