#include "mimelib_record.h"

#ifdef QRX_SYSTEM_MIMELIB
#include <mimelib/mimepp.h>
#else
#include "lib/mime/mimelib.h"
#endif

#include <memory>

namespace parser_test {

namespace {

std::string to_std(const DwString& text) {
    return {text.data(), text.length()};
}

std::string type_name(int type) {
    switch (type) {
    case DwMime::kTypeNull:
        return "kTypeNull";
    case DwMime::kTypeText:
        return "kTypeText";
    case DwMime::kTypeMultipart:
        return "kTypeMultipart";
    case DwMime::kTypeMessage:
        return "kTypeMessage";
    case DwMime::kTypeApplication:
        return "kTypeApplication";
    case DwMime::kTypeImage:
        return "kTypeImage";
    case DwMime::kTypeAudio:
        return "kTypeAudio";
    case DwMime::kTypeVideo:
        return "kTypeVideo";
    default:
        return "kTypeUnknown";
    }
}

std::string encoding_name(int encoding) {
    switch (encoding) {
    case DwMime::kCteNull:
        return "kCteNull";
    case DwMime::kCte7bit:
        return "kCte7bit";
    case DwMime::kCte8bit:
        return "kCte8bit";
    case DwMime::kCteBinary:
        return "kCteBinary";
    case DwMime::kCteQuotedPrintable:
        return "kCteQuotedPrintable";
    case DwMime::kCteBase64:
        return "kCteBase64";
    default:
        return "kCteUnknown";
    }
}

AddressRecord mailbox_record(const DwMailbox& mailbox) {
    AddressRecord record;
    record.valid = mailbox.IsValid();
    record.local = to_std(mailbox.LocalPart());
    record.domain = to_std(mailbox.Domain());
    return record;
}

std::vector<AddressRecord> list_record(const DwAddressList& list) {
    std::vector<AddressRecord> records;
    for (DwAddress* address = list.FirstAddress(); address; address = address->Next()) {
        AddressRecord record;
        if (address->IsMailbox())
            record = mailbox_record(*static_cast<DwMailbox*>(address));
        record.valid = address->IsValid();
        record.group = address->IsGroup();
        record.mailbox = address->IsMailbox();
        records.push_back(record);
    }
    return records;
}

std::vector<AddressRecord> list_record(const DwMailboxList& list) {
    std::vector<AddressRecord> records;
    DwAddress* next = list.FirstMailbox();
    for (; next; next = next->Next())
        records.push_back(mailbox_record(*static_cast<DwMailbox*>(next)));
    return records;
}

std::string decoded_body(const DwEntity& entity, const std::string& body) {
    if (!entity.Headers().HasContentTransferEncoding())
        return body;
    const int encoding = entity.Headers().ContentTransferEncoding().AsEnum();
    DwString decoded;
    if (encoding == DwMime::kCteBase64)
        DwDecodeBase64(entity.Body().AsString(), decoded);
    else if (encoding == DwMime::kCteQuotedPrintable)
        DwDecodeQuotedPrintable(entity.Body().AsString(), decoded);
    else
        return body;
    return to_std(decoded);
}

EntityRecord entity_record(const DwEntity& entity) {
    EntityRecord record;
    if (entity.Headers().HasContentType()) {
        const DwMediaType& type = entity.Headers().ContentType();
        record.type = type_name(type.Type());
        for (DwParameter* parameter = type.FirstParameter(); parameter;
             parameter = parameter->Next())
            record.params.emplace_back(to_std(parameter->Attribute()), to_std(parameter->Value()));
    }
    if (entity.Headers().HasContentTransferEncoding())
        record.cte = encoding_name(entity.Headers().ContentTransferEncoding().AsEnum());
    record.body = to_std(entity.Body().AsString());
    record.decoded = decoded_body(entity, record.body);
    return record;
}

} // namespace

MessageRecord parse_with_mimelib(const std::string& message) {
    DwInitialize();
    const std::unique_ptr<DwMessage> parsed(
        DwMessage::NewMessage(DwString(message.data(), message.size()), nullptr));
    parsed->Parse();
    MessageRecord record;
    const auto& headers = parsed->Headers();
    if (headers.HasReplyTo())
        record.reply_to = list_record(headers.ReplyTo());
    if (headers.HasFrom())
        record.from = list_record(headers.From());
    if (headers.HasSubject())
        record.subject = to_std(headers.Subject().AsString());
    if (headers.HasDate())
        record.date = to_std(headers.Date().AsString());
    record.top = entity_record(*parsed);
    for (DwBodyPart* part = parsed->Body().FirstBodyPart(); part; part = part->Next())
        record.parts.push_back(entity_record(*part));
    return record;
}

std::string base64_with_mimelib(const std::string& text) {
    DwString decoded;
    DwDecodeBase64(DwString(text.data(), text.size()), decoded);
    return to_std(decoded);
}

std::string quoted_printable_with_mimelib(const std::string& text) {
    DwString decoded;
    DwDecodeQuotedPrintable(DwString(text.data(), text.size()), decoded);
    return to_std(decoded);
}

} // namespace parser_test
