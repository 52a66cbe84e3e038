// The message parser, with the interface of the mimelib library (Dw... names) for all that intake
// asks of a message.
//
// It takes any bytes whatever and never fails on them: there are no parse errors, only fields,
// addresses and parts that are absent or invalid. Time and memory are linear in the message,
// nothing recurses, and there is no limit on line length, field count, part count, nesting or size.
// Bodies, headers and most field values are views into the one text that was parsed. Everything is
// parsed once, in DwMessage::Parse. The only exception that any of it throws is std::bad_alloc.
//
// Rules: RFC 5322 and RFC 822 for fields and addresses, RFC 2045 and RFC 2046 for Content-Type,
// encodings and multipart bodies, read leniently where real mail needs it and strictly where a
// guess could send a reply to somebody else. "Blank" means space or tab; a line ends in LF or CR
// LF, and a lone CR is an ordinary character.
//
// Objects are not safe to use from several threads at once. Copies of parsed objects are not made;
// pointers and references into a message live as long as the message.
#pragma once

#include <cstddef>
#include <memory>

class DwAddressList;
class DwBodyPart;
class DwDateTime;
class DwMailbox;
class DwMailboxList;
class DwMechanism;
class DwMediaType;
class DwText;

// To be called before anything else of this interface; there is nothing to set up here.
void DwInitialize();

namespace DwMime {

// Top-level media types; kTypeNull: the field names none.
enum DwTypeEnum {
    kTypeNull,
    kTypeUnknown,
    kTypeText,
    kTypeMultipart,
    kTypeMessage,
    kTypeApplication,
    kTypeImage,
    kTypeAudio,
    kTypeVideo
};

// Content transfer encodings; kCteNull: the field names none.
enum DwCteEnum {
    kCteNull,
    kCteUnknown,
    kCte7bit,
    kCte8bit,
    kCteBinary,
    kCteQuotedPrintable,
    kCteBase64
};

} // namespace DwMime

// A string of bytes: a view (start and length) into a buffer that its copies and parts share.
// Changing one string never changes another: a shared buffer is left to the others first.
class DwString {
public:
    DwString() = default;
    // Copies `length` bytes.
    DwString(const char* bytes, size_t length);
    // Copies a NUL-terminated text.
    DwString(const char* text); // NOLINT(google-explicit-constructor): mimelib's is implicit
    // A part of `other`, sharing its buffer; start and length are cut to what `other` has.
    DwString(const DwString& other, size_t start, size_t length);
    // Copying shares the buffer. There is no moving: it would leave a view without its buffer.
    DwString(const DwString& other) = default;
    DwString& operator=(const DwString& other) = default;
    ~DwString() = default;

    // The first byte; not NUL-terminated. Never null.
    const char* data() const;
    size_t length() const { return length_; }

    // Makes room for `capacity` bytes in all, so that appending up to there copies nothing.
    void reserve(size_t capacity);
    // Appends `length` bytes, which must not be of this string itself. Amortised constant time per
    // byte when this string alone has its buffer.
    void append(const char* bytes, size_t length);
    // ASCII letters only, whatever the locale.
    void ConvertToLowerCase();

private:
    struct Buffer;
    friend int DwDecodeBase64(const DwString& source, DwString& dest);
    friend int DwDecodeQuotedPrintable(const DwString& source, DwString& dest);

    bool owns_alone() const;
    char* start_over(size_t capacity);
    void finish(const char* end);

    std::shared_ptr<Buffer> buffer_;
    size_t start_ = 0;
    size_t length_ = 0;
};

bool operator==(const DwString& left, const char* right);

// An owning list of nodes, each of which knows the next one. Nodes stay where they are; they are
// freed in a loop, however many they are.
template <class Node> class DwChain {
public:
    DwChain() = default;
    DwChain(const DwChain&) = delete;
    DwChain& operator=(const DwChain&) = delete;
    ~DwChain() { clear(); }

    Node* first() const { return first_; }
    void append(std::unique_ptr<Node> node) {
        Node* added = node.release();
        (last_ ? last_->next_ : first_) = added;
        last_ = added;
    }
    void clear() {
        while (Node* node = first_) {
            first_ = node->next_;
            delete node;
        }
        last_ = nullptr;
    }

private:
    Node* first_ = nullptr;
    Node* last_ = nullptr;
};

// Anything that has a text of its own.
class DwMessageComponent {
public:
    DwMessageComponent(const DwMessageComponent&) = delete;
    DwMessageComponent& operator=(const DwMessageComponent&) = delete;

    // A field body: its string form, which is what stands behind the ":", without leading blanks,
    // without white space at the end, and unfolded (RFC 5322 section 2.2.3). An entity, its headers
    // and its body: their bytes as they stand in the message.
    const DwString& AsString() const { return text_; }

protected:
    DwMessageComponent() = default;
    explicit DwMessageComponent(const DwString& text) : text_(text) {}
    ~DwMessageComponent() = default;

    DwString text_;
};

class DwFieldBody : public DwMessageComponent {
protected:
    using DwMessageComponent::DwMessageComponent;
    ~DwFieldBody() = default;
};

// Unstructured text: Subject.
class DwText : public DwFieldBody {
public:
    DwText() = default;
    explicit DwText(const DwString& text) : DwFieldBody(text) {}
};

// A date, not looked into: Date.
class DwDateTime : public DwFieldBody {
public:
    DwDateTime() = default;
    explicit DwDateTime(const DwString& text) : DwFieldBody(text) {}
};

// One element of an address list: a group, or a mailbox, valid or not (RFC 822 section 6.1).
class DwAddress {
public:
    // False when the element can't be used: not `local @ domain`, or never ending.
    bool IsValid() const { return valid_; }
    // `name: ... ;`. The mailboxes of a group are not listed.
    bool IsGroup() const { return kind_ == Kind::kGroup; }
    // Only then may the element be cast to DwMailbox.
    bool IsMailbox() const { return kind_ == Kind::kMailbox; }
    // The next element of the list, or null.
    DwAddress* Next() const;

protected:
    enum class Kind { kMailbox, kGroup };
    DwAddress(Kind kind, bool valid) : kind_(kind), valid_(valid) {}
    ~DwAddress() = default;

private:
    friend class DwChain<DwMailbox>;

    Kind kind_;
    bool valid_;
    DwMailbox* next_ = nullptr;
};

// Every element is made as this class, a group too, so that one kind of node serves both lists.
class DwMailbox : public DwAddress {
public:
    static std::unique_ptr<DwMailbox> group(bool valid);
    static std::unique_ptr<DwMailbox> valid(const DwString& local_part, const DwString& domain);
    static std::unique_ptr<DwMailbox> invalid();

    // The texts before and behind the "@", comments and blanks between their tokens left out.
    // Quotes and backslashes of a quoted string stay, as do the brackets of a domain literal; a
    // line end inside of them is one blank. Both are empty for an invalid mailbox.
    const DwString& LocalPart() const { return local_part_; }
    const DwString& Domain() const { return domain_; }

private:
    using DwAddress::DwAddress;

    DwString local_part_;
    DwString domain_;
};

// Mailboxes and groups: Reply-To.
class DwAddressList : public DwFieldBody {
public:
    DwAddressList() = default;
    explicit DwAddressList(const DwString& text);

    // The first element, or null for an empty list.
    DwAddress* FirstAddress() const { return addresses_.first(); }

private:
    DwChain<DwMailbox> addresses_;
};

// Mailboxes alone: From. What looks like a group is an invalid mailbox here.
class DwMailboxList : public DwFieldBody {
public:
    DwMailboxList() = default;
    explicit DwMailboxList(const DwString& text);

    // The first element, or null for an empty list. What DwMailbox::Next gives is a DwMailbox too.
    DwMailbox* FirstMailbox() const { return mailboxes_.first(); }

private:
    DwChain<DwMailbox> mailboxes_;
};

// One `attribute=value` of a Content-Type.
class DwParameter {
public:
    DwParameter(const DwString& attribute, const DwString& value)
        : attribute_(attribute), value_(value) {}

    // As written; attributes are to be compared without regard to case.
    const DwString& Attribute() const { return attribute_; }
    // Without the quotes and backslashes of a quoted value; may be empty.
    const DwString& Value() const { return value_; }
    // The next parameter, or null.
    DwParameter* Next() const { return next_; }

private:
    friend class DwChain<DwParameter>;

    DwString attribute_;
    DwString value_;
    DwParameter* next_ = nullptr;
};

// Content-Type (RFC 2045 section 5.1).
class DwMediaType : public DwFieldBody {
public:
    DwMediaType() = default;
    explicit DwMediaType(const DwString& text);

    // One of DwMime::DwTypeEnum. The subtype is not looked at.
    int Type() const { return type_; }
    // The first parameter, or null.
    DwParameter* FirstParameter() const { return parameters_.first(); }

private:
    DwMime::DwTypeEnum type_ = DwMime::kTypeNull;
    DwChain<DwParameter> parameters_;
};

// Content-Transfer-Encoding (RFC 2045 section 6.1).
class DwMechanism : public DwFieldBody {
public:
    DwMechanism() = default;
    explicit DwMechanism(const DwString& text);

    // One of DwMime::DwCteEnum.
    int AsEnum() const { return encoding_; }

private:
    DwMime::DwCteEnum encoding_ = DwMime::kCteNull;
};

// The headers of an entity. Of several fields of one name the first counts; names are matched
// without regard to case. The accessor of a field that is missing gives one with an empty text.
class DwHeaders : public DwMessageComponent {
public:
    DwHeaders();
    ~DwHeaders();

    bool HasReplyTo() const { return reply_to_ != nullptr; }
    bool HasFrom() const { return from_ != nullptr; }
    bool HasSubject() const { return subject_ != nullptr; }
    bool HasDate() const { return date_ != nullptr; }
    bool HasContentType() const { return content_type_ != nullptr; }
    bool HasContentTransferEncoding() const { return content_transfer_encoding_ != nullptr; }

    const DwAddressList& ReplyTo() const;
    const DwMailboxList& From() const;
    const DwText& Subject() const;
    const DwDateTime& Date() const;
    const DwMediaType& ContentType() const;
    const DwMechanism& ContentTransferEncoding() const;

private:
    friend class DwEntity;

    size_t parse(const DwString& entity);
    void take_field(const DwString& entity, size_t name, size_t colon, size_t end);

    std::unique_ptr<DwAddressList> reply_to_;
    std::unique_ptr<DwMailboxList> from_;
    std::unique_ptr<DwText> subject_;
    std::unique_ptr<DwDateTime> date_;
    std::unique_ptr<DwMediaType> content_type_;
    std::unique_ptr<DwMechanism> content_transfer_encoding_;
};

// The body of an entity. Only that of a top-level message of type multipart with a boundary has
// parts: its direct ones, whose own bodies are never taken apart.
class DwBody : public DwMessageComponent {
public:
    DwBody();
    ~DwBody();

    // The first part, or null.
    DwBodyPart* FirstBodyPart() const { return parts_.first(); }

private:
    friend class DwEntity;
    friend class DwMessage;

    void set_text(const DwString& text);
    void split(const DwString& boundary);

    DwChain<DwBodyPart> parts_;
};

// Headers and a body.
class DwEntity : public DwMessageComponent {
public:
    DwHeaders& Headers() { return headers_; }
    const DwHeaders& Headers() const { return headers_; }
    DwBody& Body() { return body_; }
    const DwBody& Body() const { return body_; }

protected:
    explicit DwEntity(const DwString& text) : DwMessageComponent(text) {}
    ~DwEntity() = default;

    void parse_entity();

private:
    DwHeaders headers_;
    DwBody body_;
};

// One part of a multipart body.
class DwBodyPart : public DwEntity {
public:
    explicit DwBodyPart(const DwString& text);

    // The next part, or null.
    DwBodyPart* Next() const { return next_; }

private:
    friend class DwChain<DwBodyPart>;

    DwBodyPart* next_ = nullptr;
};

// A whole message.
class DwMessage : public DwEntity {
public:
    // A message over `text`, whose buffer it shares, not yet parsed: no fields and an empty body.
    // The caller deletes it. `parent` is null: messages inside messages are not made.
    static DwMessage* NewMessage(const DwString& text, DwEntity* parent);

    // Parses the text, once; a second call changes nothing.
    void Parse();

private:
    using DwEntity::DwEntity;

    bool parsed_ = false;
};

// Transfer decoders (RFC 2045 sections 6.8 and 6.7). `dest` gets what could be decoded in any case
// and may be `source` itself. Both return 0, or -1 where the input was malformed.

// Bytes outside the alphabet are passed over; the first "=" ends the input; two symbols left over
// give one byte, three give two. Malformed: one symbol left over, or bytes passed over that are no
// white space.
int DwDecodeBase64(const DwString& source, DwString& dest);

// Line by line (LF): blanks and CR at a line's end go; "=" as a line's last byte joins it with the
// next; "=" and two hexadecimal digits are a byte. Malformed: any other "=", which stays. Lines
// that are not joined are parted by LF; nothing is added at the end.
int DwDecodeQuotedPrintable(const DwString& source, DwString& dest);
