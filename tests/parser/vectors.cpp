#include "vectors.h"

#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>

namespace parser_test {

namespace {

// One JSON value, as far as the vectors have them: no numbers, no escapes but \" \\ and \uNNNN.
struct Value {
    enum Kind { kNull, kBool, kText, kList, kObject } kind = kNull;
    bool truth = false;
    std::string text;
    std::vector<Value> items;
    std::map<std::string, Value> members;
};

class Reader {
public:
    explicit Reader(std::string_view line) : left_(line) {}

    Value value() {
        Value read;
        if (take("null"))
            return read;
        read.kind = Value::kBool;
        if (take("true")) {
            read.truth = true;
            return read;
        }
        if (take("false"))
            return read;
        if (left_.starts_with('"'))
            return text_value();
        return left_.starts_with('[') ? list() : object();
    }

    void expect_end() const {
        if (!left_.empty())
            throw std::runtime_error("JSON: text behind the value");
    }

private:
    bool take(std::string_view wanted) {
        if (!left_.starts_with(wanted))
            return false;
        left_.remove_prefix(wanted.size());
        return true;
    }

    void expect(std::string_view wanted) {
        if (!take(wanted))
            throw std::runtime_error("JSON: expected " + std::string(wanted) + " at " +
                                     std::string(left_.substr(0, 40)));
    }

    Value text_value() {
        Value read;
        read.kind = Value::kText;
        read.text = string();
        return read;
    }

    Value list() {
        Value read;
        read.kind = Value::kList;
        expect("[");
        if (take("]"))
            return read;
        do {
            read.items.push_back(value());
        } while (take(","));
        expect("]");
        return read;
    }

    Value object() {
        Value read;
        read.kind = Value::kObject;
        expect("{");
        do {
            const std::string name = string();
            expect(":");
            read.members.emplace(name, value());
        } while (take(","));
        expect("}");
        return read;
    }

    std::string string() {
        std::string text;
        expect("\"");
        while (!left_.empty() && left_.front() != '"') {
            if (take("\\u")) {
                text += "\\u";
            } else {
                take("\\");
                text += left_.at(0);
                left_.remove_prefix(1);
            }
        }
        expect("\"");
        return text;
    }

    std::string_view left_;
};

std::string bytes(const Value& hex) {
    if (hex.kind != Value::kText || hex.text.size() % 2 != 0)
        throw std::runtime_error("vector: not a text in hexadecimal");
    std::string read;
    for (size_t i = 0; i < hex.text.size(); i += 2)
        read += static_cast<char>(std::stoi(hex.text.substr(i, 2), nullptr, 16));
    return read;
}

std::optional<std::string> optional_bytes(const Value& hex) {
    if (hex.kind == Value::kNull)
        return std::nullopt;
    return bytes(hex);
}

std::optional<std::vector<AddressRecord>> addresses(const Value& list, bool with_groups) {
    if (list.kind == Value::kNull)
        return std::nullopt;
    std::vector<AddressRecord> read;
    for (const Value& item : list.items) {
        AddressRecord address;
        address.valid = item.items.at(0).truth;
        if (with_groups) {
            address.group = item.items.at(1).truth;
            address.mailbox = item.items.at(2).truth;
        }
        const size_t texts = with_groups ? 3 : 1;
        address.local = bytes(item.items.at(texts));
        address.domain = bytes(item.items.at(texts + 1));
        read.push_back(address);
    }
    return read;
}

std::optional<std::string> name(const Value& value) {
    if (value.kind == Value::kNull)
        return std::nullopt;
    return value.text;
}

EntityRecord entity(const Value& value) {
    EntityRecord read;
    read.type = name(value.members.at("type"));
    for (const Value& parameter : value.members.at("params").items)
        read.params.emplace_back(bytes(parameter.items.at(0)), bytes(parameter.items.at(1)));
    read.cte = name(value.members.at("cte"));
    read.body = bytes(value.members.at("body"));
    read.decoded = bytes(value.members.at("decoded"));
    return read;
}

MessageRecord message(const Value& value) {
    MessageRecord read;
    read.reply_to = addresses(value.members.at("reply_to"), true);
    read.from = addresses(value.members.at("from"), false);
    read.subject = optional_bytes(value.members.at("subject"));
    read.date = optional_bytes(value.members.at("date"));
    read.top = entity(value.members.at("top"));
    for (const Value& part : value.members.at("parts").items)
        read.parts.push_back(entity(part));
    return read;
}

} // namespace

std::vector<Vector> read_vectors(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("can't read " + path);
    std::vector<Vector> vectors;
    for (std::string line; std::getline(file, line);) {
        Reader reader(line);
        const Value value = reader.value();
        reader.expect_end();
        Vector vector;
        vector.name = value.members.at("case").text;
        vector.kind = value.members.at("kind").text;
        vector.input = bytes(value.members.at("in"));
        const Value& expected = value.members.at("expect");
        if (vector.kind == "message")
            vector.message = message(expected);
        else
            vector.decoded = bytes(expected);
        vectors.push_back(vector);
    }
    return vectors;
}

} // namespace parser_test
