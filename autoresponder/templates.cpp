#include "templates.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// How many characters behind an opening one are looked at: a name and its closing character.
constexpr size_t kScanned = 33;

// What stands behind an opening character: where the walk goes on, and the length of the name, 0
// when this is no variable.
struct Bracket {
    const char* end;
    size_t name_length;
};

Bracket scan_bracket(const char* name, char close) {
    for (size_t i = 0; i < kScanned; ++i) {
        if (name[i] == '\0')
            return {name + i, 0};
        if (name[i] == close)
            return {name + i + 1, i};
    }
    return {name + kScanned, 0};
}

int find_variable(std::string_view name, const par_templ* table, unsigned count) {
    char text[kScanned] = {};
    name.copy(text, kScanned - 1);
    return templ_found(text, table, static_cast<int>(std::min<unsigned>(count, INT_MAX)));
}

// The output buffer with its control record, which counts what was used up and written so far.
struct Output {
    char* dst;
    size_t size;
    repl_ctl* ctl;

    size_t room() const { return size - ctl->written; }

    // Whether all of `text` had room; what has room is written.
    bool append(std::string_view text) {
        const size_t length = text.copy(dst + ctl->written, room());
        ctl->written += static_cast<uint32_t>(length);
        return length == text.size();
    }

    // Literal text of the source, of which only what was written counts as used up.
    bool append_literal(std::string_view text) {
        const uint32_t before = ctl->written;
        const bool fits = append(text);
        ctl->consumed += ctl->written - before;
        return fits;
    }

    // The value (or null) of a variable that takes `source_length` characters of the source.
    // False: there was no room for all of it, and the run ends.
    bool append_value(const char* value, size_t source_length) {
        const std::string_view text = value == nullptr ? std::string_view() : value;
        if (text.size() > room() && (ctl->options & kValuesWhole) != 0) {
            ctl->result |= kValueLeftOut;
            return false;
        }
        ctl->consumed += static_cast<uint32_t>(source_length);
        return append(text);
    }

    void terminate() {
        if (room() > 0)
            dst[ctl->written] = '\0';
    }
};

} // namespace

char* templ_replace(char open, char close, const par_templ* table, unsigned count, const char* src,
                    char* dst, unsigned dstsize, repl_ctl* ctl) {
    dst[0] = '\0';
    ctl->consumed = ctl->written = ctl->result = 0;
    if (src == nullptr || dstsize == 0 || count == 0)
        return dst;

    Output output{dst, dstsize, ctl};
    const char* literal = src; // the start of what is not copied yet
    const char* at = src;
    while (*at != '\0') {
        if (*at != open) {
            ++at;
            continue;
        }
        const Bracket bracket = scan_bracket(at + 1, close);
        if (bracket.name_length == 0) {
            at = bracket.end;
            continue;
        }
        const int found = find_variable({at + 1, bracket.name_length}, table, count);
        if (found < 0 && (ctl->options & kKeepUnknown) != 0) {
            ctl->result |= kUnknownMet;
            at = bracket.end;
            continue;
        }
        const char* value = found < 0 ? nullptr : table[found].value;
        if (!output.append_literal({literal, at}) ||
            !output.append_value(value, bracket.name_length + 2))
            return dst;
        literal = at = bracket.end;
    }
    if (output.append_literal({literal, at}))
        output.terminate();
    return dst;
}

int templ_found(const char* name, const par_templ* table, int count) {
    if (count <= 0 || table == nullptr || name == nullptr)
        return -1;
    int low = 0;
    int high = count - 1;
    while (low != high) {
        const int middle = low + (high - low) / 2;
        const int order = std::strcmp(name, table[middle].name);
        if (order == 0)
            return middle;
        if (order > 0)
            low = middle + 1;
        else if (middle > low)
            high = middle - 1;
        else
            return -1;
    }
    return std::strcmp(name, table[low].name) == 0 ? low : -1;
}

void templ_quick_sort(par_templ* table, int count) {
    if (count > 0)
        qs(table, 0, count - 1);
}

// Hoare's partition about the middle name, recursion on the left part and a loop on the right.
void qs(par_templ* table, int left, int right) {
    while (left < right) {
        int i = left;
        int j = right;
        const char* pivot = table[left + (right - left) / 2].name;
        while (i <= j) {
            while (i < right && std::strcmp(table[i].name, pivot) < 0)
                ++i;
            while (j > left && std::strcmp(table[j].name, pivot) > 0)
                --j;
            if (i <= j)
                std::swap(table[i++], table[j--]);
        }
        if (left < j)
            qs(table, left, j);
        left = i;
    }
}
