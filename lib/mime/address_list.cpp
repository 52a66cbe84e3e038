// The elements of Reply-To and From (RFC 822 section 6.1).
#include "address_tokens.h"
#include "mailbox.h"
#include "mimelib.h"
#include "views.h"

#include <string_view>

namespace {

using mime::Token;
using mime::TokenKind;

const DwString kEmpty;

// Where an element of a list ends and what stands in it.
struct Element {
    static constexpr size_t kNone = std::string_view::npos;

    size_t begin = 0;
    size_t end = 0;          // before the "," or at the list's end
    size_t open = kNone;     // behind the first "<" outside a group
    size_t close = kNone;    // before the next ">"
    bool has_tokens = false; // more than blanks and comments
    bool is_group = false;
    bool ends = true;  // nothing in it is left open
    bool last = false; // no "," follows
};

// Which brackets of an element the reader is in.
enum class Inside { kNothing, kAngle, kGroup };

// Takes `token` of `element`; returns where the reader is behind it.
Inside step(Element& element, const Token& token, Inside inside, bool groups) {
    if (inside == Inside::kGroup)
        return token.is(';') ? Inside::kNothing : Inside::kGroup;
    if (inside == Inside::kAngle) {
        if (!token.is('>'))
            return Inside::kAngle;
        if (element.close == Element::kNone)
            element.close = token.begin;
        return Inside::kNothing;
    }
    if (token.is('<')) {
        if (element.open == Element::kNone)
            element.open = token.end;
        return Inside::kAngle;
    }
    if (groups && token.is(':')) {
        element.is_group = true;
        return Inside::kGroup;
    }
    return Inside::kNothing;
}

// Reads the element that begins at `begin`. Elements are separated by "," outside of "<...>" and,
// where there are groups, outside of a group.
Element read_element(std::string_view list, size_t begin, bool groups) {
    Element element;
    element.begin = begin;
    Inside inside = Inside::kNothing;
    for (size_t at = begin;;) {
        const Token token = mime::next_token(list, at);
        element.end = token.begin;
        if (inside == Inside::kNothing && token.is(','))
            return element;
        if (token.kind == TokenKind::kEnd || token.kind == TokenKind::kError) {
            element.last = true;
            element.ends = token.kind == TokenKind::kEnd;
            return element;
        }
        element.has_tokens = true;
        inside = step(element, token, inside, groups);
        at = token.end;
    }
}

std::unique_ptr<DwMailbox> make_address(const DwString& field, const Element& element) {
    if (element.is_group)
        return DwMailbox::group(element.ends);
    if (!element.ends)
        return DwMailbox::invalid();
    const std::string_view list = mime::view(field);
    if (element.open == Element::kNone)
        return mime::make_mailbox(field, list.substr(element.begin, element.end - element.begin));
    if (element.close == Element::kNone)
        return DwMailbox::invalid();
    const std::string_view inside = list.substr(element.open, element.close - element.open);
    return mime::make_mailbox(field, mime::without_route(inside));
}

// The elements of an address list, one after the other.
class ElementReader {
public:
    ElementReader(const DwString& field, bool groups) : field_(field), groups_(groups) {}

    std::unique_ptr<DwMailbox> next() {
        while (!element_.last) {
            element_ = read_element(mime::view(field_), begin_, groups_);
            begin_ = element_.end + 1;
            if (element_.has_tokens || !element_.ends)
                return make_address(field_, element_);
        }
        return nullptr;
    }

private:
    DwString field_;
    bool groups_;
    size_t begin_ = 0;
    Element element_;
};

DwChain<DwMailbox>::Source elements(const DwString& field, bool groups) {
    return [reader = ElementReader(field, groups)]() mutable { return reader.next(); };
}

} // namespace

DwAddress* DwAddress::Next() const {
    return DwChain<DwMailbox>::behind(static_cast<const DwMailbox&>(*this));
}

std::unique_ptr<DwMailbox> DwMailbox::group(bool valid) {
    return std::unique_ptr<DwMailbox>(new DwMailbox(Kind::kGroup, valid));
}

std::unique_ptr<DwMailbox> DwMailbox::invalid() {
    return std::unique_ptr<DwMailbox>(new DwMailbox(Kind::kMailbox, false));
}

std::unique_ptr<DwMailbox> DwMailbox::valid(const DwString& local_part, const DwString& domain) {
    std::unique_ptr<DwMailbox> mailbox(new DwMailbox(Kind::kMailbox, true));
    mailbox->halves_ = std::make_unique<const Halves>(Halves{local_part, domain});
    return mailbox;
}

const DwString& DwMailbox::LocalPart() const {
    return halves_ ? halves_->local_part : kEmpty;
}

const DwString& DwMailbox::Domain() const {
    return halves_ ? halves_->domain : kEmpty;
}

DwAddressList::DwAddressList(const DwString& text)
    : DwFieldBody(text), addresses_(elements(text_, true)) {}

DwMailboxList::DwMailboxList(const DwString& text)
    : DwFieldBody(text), mailboxes_(elements(text_, false)) {}
