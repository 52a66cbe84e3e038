#include "naive_parser.h"

#include <cctype>
#include <cstring>
#include <map>

namespace parser_test {

namespace {

using Strings = std::vector<std::string>;

bool one_of(char c, const char* set) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// Lines with their line ends.
Strings lines_of(const std::string& text) {
    Strings lines;
    std::string line;
    for (char c : text) {
        line += c;
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        }
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

struct Entity {
    std::map<std::string, std::string> fields; // first of each name, lower case -> text behind ":"
    std::string body;
};

Entity split_entity(const std::string& text) {
    Entity entity;
    Strings names, values;
    bool in_body = false;
    bool in_field = false;
    for (const std::string& line : lines_of(text)) {
        if (in_body) {
            entity.body += line;
        } else if (line == "\n" || line == "\r\n") {
            in_body = true;
        } else if (one_of(line[0], " \t")) {
            if (in_field)
                values.back() += line;
        } else if (line.find(':') == std::string::npos) {
            in_body = true;
            entity.body += line;
        } else {
            std::string name = line.substr(0, line.find(':'));
            while (!name.empty() && one_of(name.back(), " \t"))
                name.pop_back();
            names.push_back(lower(name));
            values.push_back(line.substr(line.find(':') + 1));
            in_field = true;
        }
    }
    for (size_t i = 0; i < names.size(); ++i)
        entity.fields.emplace(names[i], values[i]);
    return entity;
}

std::string string_form(const std::string& raw) {
    std::string text;
    for (size_t i = 0; i < raw.size(); ++i) {
        const size_t end = raw.compare(i, 2, "\r\n") == 0 ? i + 2 : raw[i] == '\n' ? i + 1 : i;
        if (end != i && end < raw.size() && one_of(raw[end], " \t"))
            i = end - 1; // goes; the blank is looked at next
        else
            text += raw[i];
    }
    while (!text.empty() && one_of(text.back(), " \t\r\n\v\f"))
        text.pop_back();
    while (!text.empty() && one_of(text.front(), " \t"))
        text.erase(0, 1);
    return text;
}

// A token of an address; `kind` is its special character, or w(ord), q(uoted), l(iteral), e(rror).
struct Token {
    char kind;
    std::string text;
};

// Where the construct that begins at `at` is over: behind its closing character; 0 if it never is.
size_t end_of(const std::string& text, size_t at) {
    const char open = text[at];
    const char close = open == '(' ? ')' : open == '[' ? ']' : '"';
    int depth = 1;
    for (size_t i = at + 1; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == close) {
            if (--depth == 0)
                return i + 1;
        } else if (open == '(' && text[i] == '(') {
            ++depth;
        }
    }
    return 0;
}

std::vector<Token> address_tokens(const std::string& text) {
    std::vector<Token> tokens;
    size_t at = 0;
    while (at < text.size()) {
        const char c = text[at];
        if (static_cast<unsigned char>(c) <= 32) {
            ++at;
        } else if (one_of(c, "(\"[")) {
            const size_t end = end_of(text, at);
            if (end == 0) {
                tokens.push_back({'e', ""});
                return tokens;
            }
            if (c != '(')
                tokens.push_back({c == '"' ? 'q' : 'l', text.substr(at, end - at)});
            at = end;
        } else if (one_of(c, ")<>@,;:\\.]")) {
            tokens.push_back({c, std::string(1, c)});
            ++at;
        } else {
            size_t end = at;
            while (end < text.size() && static_cast<unsigned char>(text[end]) > 32 &&
                   !one_of(text[end], "()<>@,;:\\\".[]"))
                ++end;
            tokens.push_back({'w', text.substr(at, end - at)});
            at = end;
        }
    }
    return tokens;
}

// The text of one half of a mailbox, empty if it is none.
std::string half(const std::vector<Token>& tokens, char other_atom) {
    std::string text;
    for (size_t i = 0; i < tokens.size(); ++i) {
        const bool atom = tokens[i].kind == 'w' || tokens[i].kind == other_atom;
        if (!atom && tokens[i].kind != '.')
            return "";
        if (atom && i > 0 && tokens[i - 1].kind != '.')
            return "";
        for (char c : tokens[i].text)
            text += c == '\r' ? ' ' : c;
    }
    return text;
}

AddressRecord mailbox(std::vector<Token> tokens) {
    AddressRecord invalid, made;
    size_t first = 0;
    while (first < tokens.size() && tokens[first].kind != '<')
        ++first;
    if (first < tokens.size()) {
        size_t last = first;
        while (last < tokens.size() && tokens[last].kind != '>')
            ++last;
        if (last == tokens.size())
            return invalid;
        tokens = {tokens.begin() + static_cast<long>(first) + 1,
                  tokens.begin() + static_cast<long>(last)};
        if (!tokens.empty() && tokens[0].kind == '@') {
            while (!tokens.empty() && tokens[0].kind != ':')
                tokens.erase(tokens.begin());
            if (tokens.empty())
                return invalid;
            tokens.erase(tokens.begin());
        }
    }
    std::vector<Token> local, domain;
    bool at_seen = false;
    for (const Token& token : tokens) {
        if (token.kind == '@' && !at_seen)
            at_seen = true;
        else
            (at_seen ? domain : local).push_back(token);
    }
    made.local = half(local, 'q');
    made.domain = half(domain, 'l');
    made.valid = !made.local.empty() && !made.domain.empty();
    return made.valid ? made : invalid;
}

std::vector<AddressRecord> address_list(const std::string& text, bool groups) {
    std::vector<AddressRecord> list;
    std::vector<Token> element;
    bool in_angle = false, in_group = false, group = false;
    std::vector<Token> tokens = address_tokens(text);
    const bool never_ends = !tokens.empty() && tokens.back().kind == 'e';
    tokens.push_back({',', ","});
    for (size_t i = 0; i < tokens.size(); ++i) {
        const char kind = tokens[i].kind;
        const bool end = i + 1 == tokens.size();
        if (!end && (kind != ',' || in_angle || in_group)) {
            element.push_back(tokens[i]);
            if (in_group)
                in_group = kind != ';';
            else if (in_angle)
                in_angle = kind != '>';
            else if (kind == '<')
                in_angle = true;
            else if (kind == ':' && groups)
                in_group = group = true;
            continue;
        }
        if (!element.empty()) {
            AddressRecord record;
            const bool bad = end && never_ends;
            if (group) {
                record.valid = !bad;
                record.group = true;
                record.mailbox = false;
            } else if (!bad) {
                record = mailbox(element);
            }
            list.push_back(record);
        }
        element.clear();
        group = false;
    }
    return list;
}

// Reading a Content-Type from the left; `at` is moved on.
void pass_space(const std::string& text, size_t& at) {
    while (at < text.size()) {
        if (text[at] == '(') {
            const size_t end = end_of(text, at);
            at = end == 0 ? text.size() : end;
        } else if (static_cast<unsigned char>(text[at]) <= 32) {
            ++at;
        } else {
            return;
        }
    }
}

std::string take_token(const std::string& text, size_t& at) {
    std::string token;
    pass_space(text, at);
    while (at < text.size() && static_cast<unsigned char>(text[at]) > 32 &&
           !one_of(text[at], "()<>@,;:\\\"/[]?="))
        token += text[at++];
    return token;
}

std::string take_value(const std::string& text, size_t& at) {
    std::string value;
    pass_space(text, at);
    if (at < text.size() && text[at] == '"') {
        for (++at; at < text.size() && text[at] != '"'; ++at) {
            if (text[at] == '\\' && ++at == text.size())
                break;
            value += text[at];
        }
        ++at;
        return value;
    }
    while (at < text.size() && static_cast<unsigned char>(text[at]) > 32 && !one_of(text[at], ";("))
        value += text[at++];
    return value;
}

// To the next ";" outside of quoted strings and comments.
bool pass_semicolon(const std::string& text, size_t& at) {
    for (pass_space(text, at); at < text.size(); pass_space(text, at)) {
        if (text[at] == ';') {
            ++at;
            return true;
        }
        if (text[at] == '"') {
            const size_t end = end_of(text, at);
            at = end == 0 ? text.size() : end;
        } else {
            ++at;
        }
    }
    return false;
}

std::string enumerator(const std::string& token, const std::map<std::string, std::string>& names,
                       const std::string& prefix) {
    if (token.empty())
        return prefix + "Null";
    const auto found = names.find(lower(token));
    return prefix + (found == names.end() ? "Unknown" : found->second);
}

EntityRecord entity_record(const Entity& entity) {
    static const std::map<std::string, std::string> types = {
        {"text", "Text"},   {"multipart", "Multipart"}, {"message", "Message"},
        {"image", "Image"}, {"audio", "Audio"},         {"application", "Application"},
        {"video", "Video"}};
    static const std::map<std::string, std::string> encodings = {
        {"7bit", "7bit"},
        {"8bit", "8bit"},
        {"binary", "Binary"},
        {"base64", "Base64"},
        {"quoted-printable", "QuotedPrintable"}};
    EntityRecord record;
    record.body = record.decoded = entity.body;
    if (entity.fields.count("content-type")) {
        const std::string text = string_form(entity.fields.at("content-type"));
        size_t at = 0;
        record.type = enumerator(take_token(text, at), types, "kType");
        while (pass_semicolon(text, at)) {
            const std::string attribute = take_token(text, at);
            pass_space(text, at);
            if (attribute.empty() || at >= text.size() || text[at] != '=')
                continue;
            ++at;
            record.params.emplace_back(attribute, take_value(text, at));
        }
    }
    if (entity.fields.count("content-transfer-encoding")) {
        size_t at = 0;
        const std::string text = string_form(entity.fields.at("content-transfer-encoding"));
        record.cte = enumerator(take_token(text, at), encodings, "kCte");
        if (record.cte == "kCteBase64")
            record.decoded = base64_naively(entity.body);
        if (record.cte == "kCteQuotedPrintable")
            record.decoded = quoted_printable_naively(entity.body);
    }
    return record;
}

Strings split_parts(const std::string& body, const std::string& boundary) {
    const std::string dashes = std::string("--") + boundary;
    Strings parts;
    bool open = false;
    for (std::string line : lines_of(body)) {
        const std::string whole = line;
        while (!line.empty() && line.back() == '\n')
            line.pop_back();
        bool delimits = line.starts_with(dashes), closes = false;
        if (delimits) {
            std::string rest = line.substr(dashes.size());
            while (!rest.empty() && one_of(rest.back(), " \t\r"))
                rest.pop_back();
            closes = rest == "--";
            delimits = closes || rest.empty();
        }
        if (!delimits) {
            if (open)
                parts.back() += whole;
            continue;
        }
        if (open && parts.back().ends_with("\n")) {
            parts.back().pop_back();
            if (parts.back().ends_with("\r"))
                parts.back().pop_back();
        }
        if (closes)
            return parts;
        open = true;
        parts.push_back("");
    }
    return parts;
}

} // namespace

MessageRecord parse_naively(const std::string& message) {
    MessageRecord record;
    const Entity entity = split_entity(message);
    if (entity.fields.count("reply-to"))
        record.reply_to = address_list(string_form(entity.fields.at("reply-to")), true);
    if (entity.fields.count("from"))
        record.from = address_list(string_form(entity.fields.at("from")), false);
    if (entity.fields.count("subject"))
        record.subject = string_form(entity.fields.at("subject"));
    if (entity.fields.count("date"))
        record.date = string_form(entity.fields.at("date"));
    record.top = entity_record(entity);
    std::string boundary;
    for (const auto& [attribute, value] : record.top.params) {
        if (lower(attribute) == "boundary") {
            boundary = value;
            break;
        }
    }
    if (record.top.type == "kTypeMultipart" && !boundary.empty()) {
        for (const std::string& part : split_parts(entity.body, boundary))
            record.parts.push_back(entity_record(split_entity(part)));
    }
    return record;
}

std::string base64_naively(const std::string& text) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes, bits;
    for (char c : text.substr(0, text.find('='))) {
        const size_t value = alphabet.find(c);
        for (int bit = 5; value != std::string::npos && bit >= 0; --bit)
            bits += value >> bit & 1 ? '1' : '0';
    }
    for (size_t i = 0; i + 8 <= bits.size(); i += 8)
        bytes += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
    return bytes;
}

std::string quoted_printable_naively(const std::string& text) {
    std::string decoded;
    for (std::string line : lines_of(text)) {
        const bool ended = line.back() == '\n';
        if (ended)
            line.pop_back();
        while (!line.empty() && one_of(line.back(), " \t\r"))
            line.pop_back();
        const bool joined = !line.empty() && line.back() == '=';
        if (joined)
            line.pop_back();
        for (size_t i = 0; i < line.size(); ++i) {
            const bool escape = line[i] == '=' && i + 2 < line.size() &&
                                std::isxdigit(static_cast<unsigned char>(line[i + 1])) &&
                                std::isxdigit(static_cast<unsigned char>(line[i + 2]));
            decoded +=
                escape ? static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16)) : line[i];
            i += escape ? 2 : 0;
        }
        if (ended && !joined)
            decoded += '\n';
    }
    return decoded;
}

} // namespace parser_test
