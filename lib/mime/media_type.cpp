// Content-Type and Content-Transfer-Encoding (RFC 2045 sections 5.1 and 6.1).
#include "chars.h"
#include "enclosed.h"
#include "mimelib.h"
#include "views.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr mime::ByteSet kTokenEnds = mime::ByteSet("()<>@,;:\\\"/[]?=").with_white_space();
constexpr mime::ByteSet kUnquotedValueEnds = mime::ByteSet(";(").with_white_space();

// Reads a field's string form from left to right.
class Cursor {
public:
    explicit Cursor(std::string_view text) : text_(text) {}

    // The next byte behind white space and comments; NUL at the end.
    char peek() {
        skip_space();
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool at_end() const { return at_ >= text_.size(); }
    void step() { ++at_; }

    // A token; empty where none stands.
    std::string_view token() {
        skip_space();
        return take_until(kTokenEnds);
    }
    std::string_view unquoted_value() { return take_until(kUnquotedValueEnds); }

    // The inside of the quoted string that begins here, backslashes and all; one that never ends
    // runs to the end.
    std::string_view quoted_value() {
        const size_t start = at_ + 1;
        const size_t behind = mime::skip_enclosed(text_, at_, '"');
        at_ = std::min(behind, text_.size());
        const size_t end = behind == std::string_view::npos ? at_ : at_ - 1;
        return text_.substr(start, end - start);
    }

    // Goes behind the next ";" outside of quoted strings and comments; false where there is none.
    bool next_parameter() {
        for (; peek() != ';';) {
            if (at_end())
                return false;
            if (text_[at_] == '"')
                at_ = std::min(mime::skip_enclosed(text_, at_, '"'), text_.size());
            else
                step();
        }
        step();
        return true;
    }

private:
    void skip_space() {
        while (at_ < text_.size()) {
            if (mime::separates_tokens(text_[at_]))
                ++at_;
            else if (text_[at_] == '(')
                at_ = std::min(mime::skip_comment(text_, at_), text_.size());
            else
                return;
        }
    }

    std::string_view take_until(const mime::ByteSet& ends) {
        const size_t start = at_;
        while (at_ < text_.size() && !ends.has(text_[at_]))
            ++at_;
        return text_.substr(start, at_ - start);
    }

    std::string_view text_;
    size_t at_ = 0;
};

// The inside of a quoted string with its backslashes taken away, each keeping the byte behind it.
DwString unescape(const DwString& field, std::string_view quoted) {
    if (quoted.find('\\') == std::string_view::npos)
        return mime::part_of(field, quoted);
    DwString plain;
    plain.reserve(quoted.size());
    size_t start = 0;
    for (size_t at = 0; at < quoted.size(); ++at) {
        if (quoted[at] != '\\')
            continue;
        plain.append(quoted.data() + start, at - start);
        start = ++at;
    }
    if (start < quoted.size())
        plain.append(quoted.data() + start, quoted.size() - start);
    return plain;
}

template <class Enum> struct Name {
    std::string_view name;
    Enum value;
};

constexpr Name<DwMime::DwTypeEnum> kTypes[] = {
    {"text", DwMime::kTypeText},       {"multipart", DwMime::kTypeMultipart},
    {"message", DwMime::kTypeMessage}, {"application", DwMime::kTypeApplication},
    {"image", DwMime::kTypeImage},     {"audio", DwMime::kTypeAudio},
    {"video", DwMime::kTypeVideo},
};

constexpr Name<DwMime::DwCteEnum> kEncodings[] = {
    {"7bit", DwMime::kCte7bit},     {"8bit", DwMime::kCte8bit},
    {"binary", DwMime::kCteBinary}, {"quoted-printable", DwMime::kCteQuotedPrintable},
    {"base64", DwMime::kCteBase64},
};

template <class Enum, size_t size>
Enum look_up(const Name<Enum> (&names)[size], std::string_view token, Enum none, Enum unknown) {
    if (token.empty())
        return none;
    for (const Name<Enum>& entry : names) {
        if (mime::equals_ignoring_case(token, entry.name))
            return entry.value;
    }
    return unknown;
}

// The parameters of a Content-Type, one after the other.
class ParameterReader {
public:
    explicit ParameterReader(const DwString& field) : field_(field), cursor_(mime::view(field_)) {}

    std::unique_ptr<DwParameter> next() {
        while (cursor_.next_parameter()) {
            const std::string_view attribute = cursor_.token();
            if (attribute.empty() || cursor_.peek() != '=')
                continue;
            cursor_.step();
            const DwString value = cursor_.peek() == '"'
                                       ? unescape(field_, cursor_.quoted_value())
                                       : mime::part_of(field_, cursor_.unquoted_value());
            return std::make_unique<DwParameter>(mime::part_of(field_, attribute), value);
        }
        return nullptr;
    }

private:
    DwString field_;
    Cursor cursor_;
};

} // namespace

DwMediaType::DwMediaType(const DwString& text)
    : DwFieldBody(text), type_(look_up(kTypes, Cursor(mime::view(text_)).token(), DwMime::kTypeNull,
                                       DwMime::kTypeUnknown)),
      parameters_([reader = ParameterReader(text_)]() mutable { return reader.next(); }) {}

DwMechanism::DwMechanism(const DwString& text)
    : DwFieldBody(text), encoding_(look_up(kEncodings, Cursor(mime::view(text_)).token(),
                                           DwMime::kCteNull, DwMime::kCteUnknown)) {}
