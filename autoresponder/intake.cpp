#include "autoresponder/intake.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/message_source.h"
#include "autoresponder/paths.h"
#include "autoresponder/report.h"
#include "autoresponder/text_pieces.h"
#include "lib/text/text_encoding.h"
#include "lib/util/unique_fd.h"

#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace {

constexpr char kDefaultCharset[] = "US-ASCII";

// The text of a message as it came: transfer-decoded, not yet recoded.
struct TextPart {
    std::string charset = kDefaultCharset;
    DwString body;
};

std::string to_string(const DwString& text) {
    return std::string(text.data(), text.length());
}

std::string_view view(const DwString& text) {
    return {text.data(), text.length()};
}

std::string_view up_to_nul(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

std::unique_ptr<DwMessage> parse(const DwString& text) {
    std::unique_ptr<DwMessage> message(DwMessage::NewMessage(text, nullptr));
    message->Parse();
    return message;
}

// The headers are not const here: an installed mimelib gives fields of non-const headers only.
const DwMailbox* find_sender(DwHeaders& headers) {
    const DwMailbox* mailbox = nullptr;
    if (headers.HasReplyTo())
        mailbox = GetMailboxFromAddressList(headers.ReplyTo());
    if (mailbox == nullptr && headers.HasFrom())
        mailbox = GetMailboxFromMailboxList(headers.From());
    return mailbox;
}

std::string address_of(const DwMailbox& mailbox) {
    std::string address(up_to_nul(view(mailbox.LocalPart())));
    return address.append("@").append(up_to_nul(view(mailbox.Domain())));
}

// A view into the message would keep all of it in memory, so a subject that is shorter than the
// body is copied.
DwString raw_subject_of(DwMessage& message) {
    if (!message.Headers().HasSubject())
        return DwString();
    const DwString& subject = message.Headers().Subject().AsString();
    if (subject.length() >= message.Body().AsString().length())
        return subject;
    return DwString(subject.data(), subject.length());
}

std::string raw_date_of(DwHeaders& headers) {
    return headers.HasDate() ? to_string(headers.Date().AsString()) : std::string();
}

bool has_type(const DwEntity& entity, int type) {
    return entity.Headers().HasContentType() && entity.Headers().ContentType().Type() == type;
}

// The direct part to read of a multipart message, null when none is declared as text.
const DwEntity* find_text_part(const DwMessage& message) {
    for (const DwBodyPart* part = message.Body().FirstBodyPart(); part; part = part->Next())
        if (has_type(*part, DwMime::kTypeText))
            return part;
    return nullptr;
}

TextPart choose_text(const DwMessage& message) {
    const DwEntity* entity = nullptr;
    if (!message.Headers().HasContentType() || has_type(message, DwMime::kTypeText))
        entity = &message;
    else if (has_type(message, DwMime::kTypeMultipart))
        entity = find_text_part(message);

    TextPart text;
    if (entity != nullptr) {
        text.charset = to_string(GetCharset(*entity));
        DecodeBody(*entity, text.body);
    }
    return text;
}

TextPieces recode_body(std::string_view body, const std::string& charset) {
    TextPieces utf8(body.size());
    try {
        quarx::iconvRecodePieces(body, charset, "UTF-8", true,
                                 [&](std::string_view piece) { utf8.append(piece); });
    } catch (const std::runtime_error&) {
        report("Could not convert message body text from " + charset + " to UTF-8.");
        utf8.clear();
        utf8.append(up_to_nul(body));
    }
    return utf8;
}

std::string decode_subject(std::string raw_subject, const std::string& charset) {
    try {
        return quarx::rfc1522::decode(std::move(raw_subject));
    } catch (const std::runtime_error&) {
        // The body's charset is named, whatever the encoded word says; admins know the line so.
        report("Could not convert message subject text from " + charset + " to UTF-8.");
        return std::string();
    }
}

void split_recipient(Mail_content* content) {
    const size_t at = content->recipient.find('@');
    content->mailname = content->recipient.substr(0, at);
    content->domain = content->recipient.substr(at + 1); // npos + 1 is 0: the whole address
}

} // namespace

const DwMailbox* GetMailboxFromAddressList(const DwAddressList& list) {
    for (const DwAddress* address = list.FirstAddress(); address; address = address->Next())
        if (address->IsValid() && !address->IsGroup() && address->IsMailbox())
            return static_cast<const DwMailbox*>(address);
    return nullptr;
}

const DwMailbox* GetMailboxFromMailboxList(const DwMailboxList& list) {
    for (const DwAddress* mailbox = list.FirstMailbox(); mailbox; mailbox = mailbox->Next())
        if (mailbox->IsValid())
            return static_cast<const DwMailbox*>(mailbox);
    return nullptr;
}

DwString GetCharset(const DwEntity& entity) {
    if (entity.Headers().HasContentType()) {
        const DwMediaType& type = entity.Headers().ContentType();
        for (const DwParameter* p = type.FirstParameter(); p; p = p->Next()) {
            DwString attribute = p->Attribute();
            attribute.ConvertToLowerCase();
            if (attribute == "charset")
                return p->Value();
        }
    }
    return DwString(kDefaultCharset);
}

DwString& DecodeBody(const DwEntity& entity, DwString& out) {
    const DwString& body = entity.Body().AsString();
    const int mechanism = entity.Headers().HasContentTransferEncoding()
                              ? entity.Headers().ContentTransferEncoding().AsEnum()
                              : static_cast<int>(DwMime::kCteNull);
    if (mechanism == DwMime::kCteBase64)
        DwDecodeBase64(body, out);
    else if (mechanism == DwMime::kCteQuotedPrintable)
        DwDecodeQuotedPrintable(body, out);
    else
        out = body;
    return out;
}

int parse_message(Mail_content* content) {
    UniqueFd copy(mkostemp(mail_file_name, O_CLOEXEC));
    if (!copy) {
        report("Could not create a temporary file.");
        return 1;
    }
    DwInitialize();
    std::unique_ptr<DwMessage> message = parse(read_message(STDIN_FILENO, copy.get()));
    copy.reset();

    const DwMailbox* sender = find_sender(message->Headers());
    if (sender == nullptr) {
        report("Could not get sender's e-mail address from Reply-To: or From: headers.");
        return 1;
    }
    const char* recipient = std::getenv(paths::kRecipientVariable);
    if (recipient == nullptr) {
        report("Could not get recipient e-mail address from RESP_RECIPIENT environment variable");
        return 1;
    }
    content->sender = address_of(*sender);
    content->recipient = recipient;
    split_recipient(content);

    DwString raw_subject = raw_subject_of(*message);
    content->date = raw_date_of(message->Headers());
    TextPart text = choose_text(*message);
    // Of a large message's forms each goes as soon as the next one is made.
    message.reset();
    content->charset = text.charset;
    TextPieces body = recode_body(view(text.body), text.charset);
    text.body = DwString();
    std::string subject = to_string(raw_subject);
    raw_subject = DwString();
    content->subject = decode_subject(std::move(subject), text.charset);
    content->body = body.take_lines();
    return 0;
}
