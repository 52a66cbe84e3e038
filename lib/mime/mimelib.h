// The message parser, with the interface of the mimelib library (Dw... names) for all that intake
// asks of a message.
//
// It takes any bytes whatever and never fails on them: there are no parse errors, only fields,
// addresses and parts that are absent or invalid. Time and memory are linear in the message,
// nothing recurses, and there is no limit on line length, field count, part count, nesting or size.
// Bodies and most field values are views into the one text that was parsed. Everything is parsed
// once; addresses, parameters and parts as far as they are walked. The only exception that any of
// it throws is std::bad_alloc.
//
// Rules: RFC 5322 and RFC 822 for fields and addresses, RFC 2045 and RFC 2046 for Content-Type,
// encodings and multipart bodies, read leniently where real mail needs it and strictly where a
// guess could send a reply to somebody else. "Blank" means space or tab; a line ends in LF or CR
// LF, and a lone CR is an ordinary character.
//
// Objects are not safe to use from several threads at once. Pointers and references into a message
// live as long as the message, but those to a list's elements behind the first 1000: such an
// element lives until Next() has given the one behind it, or another walk has come to it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

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

// An owning list whose nodes are made one by one as they are walked. The first kKept stay where
// they are for the list's life. Of those behind them there is one at a time, which goes when the
// walk goes on to the next: a hostile message has millions, each many times as large as its text.
// Every walk makes them anew. Nodes are freed in a loop, however many they are.
template <class Node> class DwChain {
public:
    // Makes the next node; null at the end, after which it is not called again. A copy goes on on
    // its own.
    using Source = std::function<std::unique_ptr<Node>()>;

    static constexpr size_t kKept = 1000;

    explicit DwChain(Source source) : source_(std::move(source)) { keep(); }
    DwChain(const DwChain&) = delete;
    DwChain& operator=(const DwChain&) = delete;
    ~DwChain() {
        while (Node* node = first_) {
            first_ = node->next_;
            delete node;
        }
    }

    // The first node, or null.
    Node* first() const { return first_; }
    // The node behind `node`, made now if `node` is the last one so far; null at the end.
    static Node* behind(const Node& node) {
        return node.next_ ? node.next_ : node.chain_->extend(node);
    }

private:
    Node* extend(const Node& last) {
        if (&last == passing_.get())
            return pass();
        if (kept_ < kKept)
            return keep();
        rest_ = source_;
        return pass();
    }

    Node* keep() {
        Node* added = make(source_).release();
        if (!added)
            return nullptr;
        (last_ ? last_->next_ : first_) = added;
        last_ = added;
        ++kept_;
        return added;
    }

    Node* pass() {
        std::unique_ptr<Node> added = make(rest_);
        if (!added)
            return nullptr;
        passing_ = std::move(added);
        return passing_.get();
    }

    std::unique_ptr<Node> make(Source& source) {
        std::unique_ptr<Node> node = source ? source() : nullptr;
        if (node)
            node->chain_ = this;
        else
            source = nullptr;
        return node;
    }

    Source source_;
    Node* first_ = nullptr;
    Node* last_ = nullptr;
    size_t kept_ = 0;

    Source rest_; // of the walk behind the nodes that are kept
    std::unique_ptr<Node> passing_;
};

// What has a text of its own: a field body, or the body of an entity.
class DwMessageComponent {
public:
    DwMessageComponent(const DwMessageComponent&) = delete;
    DwMessageComponent& operator=(const DwMessageComponent&) = delete;

    // Of a field body, its string form: what stands behind the ":", without leading blanks, without
    // white space at the end, and unfolded (RFC 5322 section 2.2.3). Of a body, its bytes as they
    // stand in the message.
    const DwString& AsString() const { return text_; }

protected:
    explicit DwMessageComponent(const DwString& text = {}) : text_(text) {}
    ~DwMessageComponent() = default;

    DwString text_;
};

// The value of a field. Default constructed: that of a field which is missing, with an empty text.
class DwFieldBody : public DwMessageComponent {
protected:
    using DwMessageComponent::DwMessageComponent;
    ~DwFieldBody() = default;
};

// Unstructured text: Subject.
class DwText : public DwFieldBody {
public:
    explicit DwText(const DwString& text = {}) : DwFieldBody(text) {}
};

// A date, not looked into: Date.
class DwDateTime : public DwFieldBody {
public:
    explicit DwDateTime(const DwString& text = {}) : DwFieldBody(text) {}
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

    DwMailbox* next_ = nullptr;
    DwChain<DwMailbox>* chain_ = nullptr;

private:
    Kind kind_;
    bool valid_;
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
    const DwString& LocalPart() const;
    const DwString& Domain() const;

private:
    friend class DwChain<DwMailbox>;
    using DwAddress::DwAddress;

    struct Halves {
        DwString local_part;
        DwString domain;
    };
    std::unique_ptr<const Halves> halves_; // of a valid mailbox
};

// Mailboxes and groups: Reply-To.
class DwAddressList : public DwFieldBody {
public:
    explicit DwAddressList(const DwString& text = {});

    // The first element, or null for an empty list.
    DwAddress* FirstAddress() const { return addresses_.first(); }

private:
    DwChain<DwMailbox> addresses_;
};

// Mailboxes alone: From. What looks like a group is an invalid mailbox here.
class DwMailboxList : public DwFieldBody {
public:
    explicit DwMailboxList(const DwString& text = {});

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
    DwParameter* Next() const { return DwChain<DwParameter>::behind(*this); }

private:
    friend class DwChain<DwParameter>;

    DwParameter* next_ = nullptr;
    DwChain<DwParameter>* chain_ = nullptr;
    DwString attribute_;
    DwString value_;
};

// Content-Type (RFC 2045 section 5.1).
class DwMediaType : public DwFieldBody {
public:
    explicit DwMediaType(const DwString& text = {});

    // One of DwMime::DwTypeEnum. The subtype is not looked at.
    int Type() const { return type_; }
    // The first parameter, or null.
    DwParameter* FirstParameter() const { return parameters_.first(); }

private:
    DwMime::DwTypeEnum type_;
    DwChain<DwParameter> parameters_;
};

// Content-Transfer-Encoding (RFC 2045 section 6.1).
class DwMechanism : public DwFieldBody {
public:
    explicit DwMechanism(const DwString& text = {});

    // One of DwMime::DwCteEnum.
    int AsEnum() const { return encoding_; }

private:
    DwMime::DwCteEnum encoding_;
};

// The headers of an entity. Of several fields of one name the first counts; names are matched
// without regard to case.
class DwHeaders {
public:
    DwHeaders();
    DwHeaders(const DwHeaders&) = delete;
    DwHeaders& operator=(const DwHeaders&) = delete;
    ~DwHeaders();

    bool HasReplyTo() const;
    bool HasFrom() const;
    bool HasSubject() const;
    bool HasDate() const;
    bool HasContentType() const;
    bool HasContentTransferEncoding() const;

    // A field that is missing has an empty text, no elements and no parameters.
    const DwAddressList& ReplyTo() const;
    const DwMailboxList& From() const;
    const DwText& Subject() const;
    const DwDateTime& Date() const;
    const DwMediaType& ContentType() const;
    const DwMechanism& ContentTransferEncoding() const;

private:
    friend class DwEntity;
    struct Fields;

    size_t parse(const DwString& entity);
    void take_field(const DwString& entity, size_t name, size_t colon, size_t end);

    std::unique_ptr<Fields> fields_; // none where none of them is there
};

// The body of an entity. Only that of a top-level message of type multipart with a boundary has
// parts: its direct ones, whose own bodies are never taken apart.
class DwBody : public DwMessageComponent {
public:
    DwBody();
    ~DwBody();

    // The first part, or null.
    DwBodyPart* FirstBodyPart() const;

private:
    friend class DwEntity;
    friend class DwMessage;

    void set_text(const DwString& text) { text_ = text; }
    void split(const DwString& boundary);

    std::unique_ptr<DwChain<DwBodyPart>> parts_; // of a multipart
};

// Headers and a body.
class DwEntity {
public:
    DwEntity(const DwEntity&) = delete;
    DwEntity& operator=(const DwEntity&) = delete;

    DwHeaders& Headers() { return headers_; }
    const DwHeaders& Headers() const { return headers_; }
    DwBody& Body() { return body_; }
    const DwBody& Body() const { return body_; }

protected:
    DwEntity() = default;
    ~DwEntity() = default;

    void parse(const DwString& text);

private:
    DwHeaders headers_;
    DwBody body_;
};

// One part of a multipart body.
class DwBodyPart : public DwEntity {
public:
    explicit DwBodyPart(const DwString& text) { parse(text); }

    // The next part, or null.
    DwBodyPart* Next() const { return DwChain<DwBodyPart>::behind(*this); }

private:
    friend class DwChain<DwBodyPart>;

    DwBodyPart* next_ = nullptr;
    DwChain<DwBodyPart>* chain_ = nullptr;
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
    explicit DwMessage(const DwString& text) : text_(text) {}

    DwString text_;
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
// that are not joined are separated by LF; nothing is added at the end.
int DwDecodeQuotedPrintable(const DwString& source, DwString& dest);
