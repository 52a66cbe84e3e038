#include "chars.h"
#include "mimelib.h"
#include "views.h"

#include <cstring>
#include <string_view>

using mime::is_blank;

struct DwHeaders::Fields {
    std::unique_ptr<DwAddressList> reply_to;
    std::unique_ptr<DwMailboxList> from;
    std::unique_ptr<DwText> subject;
    std::unique_ptr<DwDateTime> date;
    std::unique_ptr<DwMediaType> content_type;
    std::unique_ptr<DwMechanism> content_transfer_encoding;
};

DwHeaders::DwHeaders() = default;
DwHeaders::~DwHeaders() = default;

namespace {

bool is_white_space(char c) {
    return is_blank(c) || (c >= '\n' && c <= '\r');
}

// Whether a line end stands at `at`; its length, else 0.
size_t line_end_length(std::string_view text, size_t at) {
    if (text[at] == '\n')
        return 1;
    return text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n' ? 2 : 0;
}

// What stands behind the ":" of a field without leading blanks (those behind a fold as well) and
// without white space at the end, as a part of `field`.
std::string_view trim(std::string_view field) {
    size_t start = 0;
    while (start < field.size()) {
        const size_t skipped = is_blank(field[start]) ? 1 : line_end_length(field, start);
        if (skipped == 0)
            break;
        start += skipped;
    }
    size_t end = field.size();
    while (end > start && is_white_space(field[end - 1]))
        --end;
    return field.substr(start, end - start);
}

// The string form of a field: a part of `entity` where there is nothing to unfold. Within a trimmed
// field every line end stands before a blank.
DwString string_form(const DwString& entity, std::string_view field) {
    const std::string_view body = trim(field);
    size_t line_end = body.find('\n');
    if (line_end == std::string_view::npos)
        return mime::part_of(entity, body);
    DwString unfolded;
    unfolded.reserve(body.size());
    size_t start = 0;
    while (line_end != std::string_view::npos) {
        const bool crlf = line_end > start && body[line_end - 1] == '\r';
        unfolded.append(body.data() + start, line_end - start - (crlf ? 1 : 0));
        start = line_end + 1;
        line_end = body.find('\n', start);
    }
    unfolded.append(body.data() + start, body.size() - start);
    return unfolded;
}

std::string_view without_trailing_blanks(std::string_view name) {
    while (!name.empty() && is_blank(name.back()))
        name.remove_suffix(1);
    return name;
}

} // namespace

// Takes the header lines from the start of `entity`; returns where the body begins. The lines end
// at the first empty one, which belongs to neither side, or before the first that neither begins
// with a blank nor holds a ":".
size_t DwHeaders::parse(const DwString& entity) {
    const std::string_view text = mime::view(entity);
    size_t field = std::string_view::npos; // start of the field that continuation lines belong to
    size_t colon = 0;
    size_t body = text.size();
    size_t line = 0;
    while (line < text.size()) {
        const size_t next = mime::next_line(text, line);
        if (!is_blank(text[line])) {
            if (field != std::string_view::npos)
                take_field(entity, field, colon, line);
            field = std::string_view::npos;
            const size_t empty_line = line_end_length(text, line);
            if (empty_line != 0) {
                body = line + empty_line;
                break;
            }
            const size_t found = text.substr(line, next - line).find(':');
            if (found == std::string_view::npos) {
                body = line;
                break;
            }
            field = line;
            colon = line + found;
        }
        line = next;
    }
    if (field != std::string_view::npos)
        take_field(entity, field, colon, line);
    return body;
}

// The field at [name, end) whose ":" stands at `colon`: kept if it is the first of a name that is
// asked for.
void DwHeaders::take_field(const DwString& entity, size_t name, size_t colon, size_t end) {
    const std::string_view text = mime::view(entity);
    const std::string_view key = without_trailing_blanks(text.substr(name, colon - name));
    const std::string_view value = text.substr(colon + 1, end - colon - 1);
    const auto take = [&](auto member, std::string_view field_name) {
        if (!mime::equals_ignoring_case(key, field_name))
            return;
        if (!fields_)
            fields_ = std::make_unique<Fields>();
        auto& field = (*fields_).*member;
        using Field = typename std::remove_reference_t<decltype(field)>::element_type;
        if (!field)
            field = std::make_unique<Field>(string_form(entity, value));
    };
    take(&Fields::reply_to, "reply-to");
    take(&Fields::from, "from");
    take(&Fields::subject, "subject");
    take(&Fields::date, "date");
    take(&Fields::content_type, "content-type");
    take(&Fields::content_transfer_encoding, "content-transfer-encoding");
}

bool DwHeaders::HasReplyTo() const {
    return fields_ && fields_->reply_to;
}

const DwAddressList& DwHeaders::ReplyTo() const {
    static const DwAddressList missing;
    return HasReplyTo() ? *fields_->reply_to : missing;
}

bool DwHeaders::HasFrom() const {
    return fields_ && fields_->from;
}

const DwMailboxList& DwHeaders::From() const {
    static const DwMailboxList missing;
    return HasFrom() ? *fields_->from : missing;
}

bool DwHeaders::HasSubject() const {
    return fields_ && fields_->subject;
}

const DwText& DwHeaders::Subject() const {
    static const DwText missing;
    return HasSubject() ? *fields_->subject : missing;
}

bool DwHeaders::HasDate() const {
    return fields_ && fields_->date;
}

const DwDateTime& DwHeaders::Date() const {
    static const DwDateTime missing;
    return HasDate() ? *fields_->date : missing;
}

bool DwHeaders::HasContentType() const {
    return fields_ && fields_->content_type;
}

const DwMediaType& DwHeaders::ContentType() const {
    static const DwMediaType missing;
    return HasContentType() ? *fields_->content_type : missing;
}

bool DwHeaders::HasContentTransferEncoding() const {
    return fields_ && fields_->content_transfer_encoding;
}

const DwMechanism& DwHeaders::ContentTransferEncoding() const {
    static const DwMechanism missing;
    return HasContentTransferEncoding() ? *fields_->content_transfer_encoding : missing;
}
