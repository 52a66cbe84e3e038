// Naive twin of the template substitution: slow and obvious, over strings and a map.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace twin {

using Variables = std::map<std::string, std::optional<std::string>>;

// All that a substitution leaves behind.
struct Substitution {
    std::string text;          // what was written
    bool is_terminated = true; // whether a NUL follows it
    std::uint32_t consumed = 0;
    std::uint32_t result = 0;
    bool operator==(const Substitution&) const = default;
};

inline Substitution substitute(char open, char close, const Variables& variables,
                               const std::optional<std::string>& source, size_t size,
                               std::uint32_t options) {
    Substitution done;
    if (!source || source->empty() || size == 0 || variables.empty())
        return done;
    const std::string& src = *source;
    const bool values_whole = options % 2 == 1;
    const bool strict = options / 2 % 2 == 1;

    size_t literal = 0; // where the text that waits for its copy begins
    size_t at = 0;
    while (at < src.size()) {
        if (src[at] != open) {
            at += 1;
            continue;
        }
        // At most 33 characters are looked at for the closing one; the text may end before.
        std::string name;
        size_t seen = 0;
        bool closed = false;
        while (seen < 33 && at + 1 + seen < src.size() && !closed) {
            const char c = src[at + 1 + seen];
            seen += 1;
            closed = c == close;
            if (!closed)
                name += c;
        }
        const size_t behind = at + 1 + seen;
        if (!closed || name.empty()) {
            at = behind;
            continue;
        }
        const auto variable = variables.find(name);
        const bool known = variable != variables.end();
        if (!known && strict) {
            done.result |= 2;
            at = behind;
            continue;
        }
        const std::string before = src.substr(literal, at - literal);
        if (done.text.size() + before.size() > size) {
            const size_t room = size - done.text.size();
            done.text += before.substr(0, room);
            done.consumed += static_cast<std::uint32_t>(room);
            done.is_terminated = false;
            return done;
        }
        done.text += before;
        const std::string value = known && variable->second ? *variable->second : "";
        if (done.text.size() + value.size() > size) {
            done.is_terminated = false;
            done.consumed += static_cast<std::uint32_t>(before.size());
            if (values_whole) {
                done.result |= 1;
                return done;
            }
            done.consumed += static_cast<std::uint32_t>(name.size() + 2);
            done.text = (done.text + value).substr(0, size);
            return done;
        }
        done.text += value;
        done.consumed += static_cast<std::uint32_t>(before.size() + name.size() + 2);
        literal = at = behind;
    }
    const std::string rest = src.substr(literal);
    if (done.text.size() + rest.size() + 1 > size) {
        done.consumed += static_cast<std::uint32_t>(size - done.text.size());
        done.text = (done.text + rest).substr(0, size);
        done.is_terminated = false;
    } else {
        done.consumed += static_cast<std::uint32_t>(rest.size());
        done.text += rest;
    }
    return done;
}

} // namespace twin
