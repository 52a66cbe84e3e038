// Taking a multipart body apart at its delimiter lines (RFC 2046 section 5.1.1).
#include "chars.h"
#include "mimelib.h"
#include "views.h"

#include <string>
#include <string_view>

DwBody::DwBody() = default;
DwBody::~DwBody() = default;

DwBodyPart* DwBody::FirstBodyPart() const {
    return parts_ ? parts_->first() : nullptr;
}

namespace {

constexpr size_t kNone = std::string_view::npos;

struct Delimiter {
    size_t line = kNone;   // where its line begins
    size_t behind = kNone; // where the next line begins
    bool closes = false;
};

bool only_blanks(std::string_view rest) {
    return rest.find_first_not_of(" \t\r") == kNone;
}

// The first delimiter line that begins at `line`, the start of a line, or later. `dashes` is "--"
// and the boundary, in which there is no LF: a comparison never leaves the line.
Delimiter find_delimiter(std::string_view body, std::string_view dashes, size_t line) {
    for (; line < body.size(); line = mime::next_line(body, line)) {
        if (!body.substr(line).starts_with(dashes))
            continue;
        const size_t behind = mime::next_line(body, line);
        std::string_view rest = body.substr(line + dashes.size(), behind - line - dashes.size());
        if (rest.ends_with('\n'))
            rest.remove_suffix(1);
        if (only_blanks(rest))
            return {line, behind, false};
        if (rest.starts_with("--") && only_blanks(rest.substr(2)))
            return {line, behind, true};
    }
    return {};
}

// The text from `start` to the line end before the delimiter line at `line`.
std::string_view text_before(std::string_view body, size_t start, size_t line) {
    size_t end = line;
    if (end > start)
        --end;
    if (end > start && body[end - 1] == '\r')
        --end;
    return body.substr(start, end - start);
}

// The parts of a body, one after the other.
class PartReader {
public:
    PartReader(const DwString& body, const DwString& boundary)
        : body_(body), dashes_("--" + std::string(mime::view(boundary))),
          opening_(find_delimiter(mime::view(body_), dashes_, 0)) {}

    std::unique_ptr<DwBodyPart> next() {
        if (opening_.line == kNone || opening_.closes)
            return nullptr;
        const std::string_view body = mime::view(body_);
        const size_t start = opening_.behind;
        opening_ = find_delimiter(body, dashes_, start);
        const std::string_view part =
            opening_.line == kNone ? body.substr(start) : text_before(body, start, opening_.line);
        return std::make_unique<DwBodyPart>(mime::part_of(body_, part));
    }

private:
    DwString body_;
    std::string dashes_;
    Delimiter opening_; // the delimiter line before the next part
};

} // namespace

void DwBody::split(const DwString& boundary) {
    parts_ = std::make_unique<DwChain<DwBodyPart>>(
        [reader = PartReader(text_, boundary)]() mutable { return reader.next(); });
}
