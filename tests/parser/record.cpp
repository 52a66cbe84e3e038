#include "record.h"

#include <cstdio>

namespace parser_test {

namespace {

std::string list_text(const std::vector<AddressRecord>& list) {
    std::string text;
    for (const AddressRecord& address : list) {
        text += address.group ? " group" : address.mailbox ? " mailbox" : " neither";
        text += address.valid ? " valid " : " invalid ";
        text += printable(address.local) + " at " + printable(address.domain) + ";";
    }
    return text + "\n";
}

std::string entity_text(const char* name, const EntityRecord& entity) {
    std::string text = std::string(name) + ": type " + entity.type.value_or("absent") +
                       ", encoding " + entity.cte.value_or("absent") + "\n";
    for (const auto& [attribute, value] : entity.params)
        text += "  parameter " + printable(attribute) + " = " + printable(value) + "\n";
    text += "  body " + printable(entity.body) + "\n";
    if (entity.decoded != entity.body)
        text += "  decoded " + printable(entity.decoded) + "\n";
    return text;
}

} // namespace

std::string printable(const std::string& bytes) {
    constexpr size_t kMost = 2000;
    std::string text = "'";
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (bytes.size() > kMost && i == kMost / 2) {
            text += " ...[" + std::to_string(bytes.size()) + " bytes]... ";
            i = bytes.size() - kMost / 2;
        }
        const auto byte = static_cast<unsigned char>(bytes[i]);
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", byte);
        if (byte < ' ' || byte > '~' || byte == '\\' || byte == '\'')
            text += hex;
        else
            text += bytes[i];
    }
    return text + "'";
}

std::string to_text(const MessageRecord& record) {
    std::string text;
    if (record.reply_to)
        text += "reply-to:" + list_text(*record.reply_to);
    if (record.from)
        text += "from:" + list_text(*record.from);
    if (record.subject)
        text += "subject: " + printable(*record.subject) + "\n";
    if (record.date)
        text += "date: " + printable(*record.date) + "\n";
    text += entity_text("message", record.top);
    for (const EntityRecord& part : record.parts)
        text += entity_text("part", part);
    return text;
}

} // namespace parser_test
