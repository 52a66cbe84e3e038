// Naive twin of intake: the run record of a message, put together from the naive parser and the
// twins of the text codecs.
#pragma once

#include "autoresponder/mail_content.h"
#include "lines_twin.h"
#include "tests/parser/naive_parser.h"
#include "text_outcome.h"
#include "text_twins.h"

#include <cctype>
#include <optional>
#include <string>
#include <vector>

namespace twin {

inline std::string c_string(const std::string& text) {
    return text.c_str();
}

inline std::optional<std::string> sender_of(const parser_test::MessageRecord& message) {
    for (const auto& list : {message.reply_to, message.from})
        for (const auto& address : list.value_or(std::vector<parser_test::AddressRecord>()))
            if (address.valid && address.mailbox && !address.group)
                return c_string(address.local) + "@" + c_string(address.domain);
    return std::nullopt;
}

// The message itself, one of its parts, or nothing, where there is no text.
inline parser_test::EntityRecord text_entity(const parser_test::MessageRecord& message) {
    if (!message.top.type || message.top.type == "kTypeText")
        return message.top;
    if (message.top.type == "kTypeMultipart")
        for (const auto& part : message.parts)
            if (part.type == "kTypeText")
                return part;
    return {};
}

inline std::string charset_of(const parser_test::EntityRecord& entity) {
    for (const auto& [attribute, value] : entity.params) {
        std::string lower;
        for (const char c : attribute)
            lower += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        if (lower == "charset")
            return value;
    }
    return "US-ASCII";
}

// Nothing where nobody is to be answered.
inline std::optional<Mail_content> take_in(const std::string& message,
                                           const std::string& recipient) {
    const parser_test::MessageRecord record = parser_test::parse_naively(message + "\n");
    const std::optional<std::string> sender = sender_of(record);
    if (!sender)
        return std::nullopt;
    const parser_test::EntityRecord entity = text_entity(record);
    const std::string charset = charset_of(entity);
    const Outcome body = outcome_of([&] { return recode(entity.decoded, charset, "UTF-8", true); });
    const Outcome subject = outcome_of([&] { return decode(record.subject.value_or("")); });
    return Mail_content{*sender,
                        recipient,
                        recipient.substr(0, recipient.find('@')),
                        recipient.substr(recipient.find('@') + 1),
                        subject.text,
                        record.date.value_or(""),
                        charset,
                        lines_of(body.failure.empty() ? body.text : c_string(entity.decoded))};
}

} // namespace twin
