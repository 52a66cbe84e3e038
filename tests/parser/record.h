// What intake asks of a message, as plain values: the common form in which the parser, its naive
// twin, the vectors and other libraries are compared.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace parser_test {

struct AddressRecord {
    bool valid = false;
    bool group = false;
    bool mailbox = true;
    std::string local, domain;

    bool operator==(const AddressRecord&) const = default;
};

struct EntityRecord {
    std::optional<std::string> type; // name of the enumerator; none without Content-Type
    std::vector<std::pair<std::string, std::string>> params;
    std::optional<std::string> cte; // name of the enumerator; none without the field
    std::string body;
    std::string decoded; // the body through its transfer decoder, or as it is

    bool operator==(const EntityRecord&) const = default;
};

struct MessageRecord {
    std::optional<std::vector<AddressRecord>> reply_to, from; // none without the field
    std::optional<std::string> subject, date;
    EntityRecord top;
    std::vector<EntityRecord> parts;

    bool operator==(const MessageRecord&) const = default;
};

// Printable ASCII as it is, everything else as \xNN; long texts are cut in the middle.
std::string printable(const std::string& bytes);

// One line a value.
std::string to_text(const MessageRecord& record);

inline std::ostream& operator<<(std::ostream& out, const MessageRecord& record) {
    return out << to_text(record);
}

} // namespace parser_test
