#include "lib/conf/qrx_conf.h"

#include "lib/util/messlog.h"
#include "lib/util/owners.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <search.h>

namespace {

constexpr int kReportLevel = 12;
constexpr unsigned kFirstSlots = 20;

// No array of more slots has a byte size that fits.
constexpr unsigned kMostSlots =
    static_cast<unsigned>(std::min<size_t>(UINT_MAX, SIZE_MAX / sizeof(conf_entry)));

int cmp_conf(const void* left, const void* right) {
    return strcmp(static_cast<const conf_entry*>(left)->name,
                  static_cast<const conf_entry*>(right)->name);
}

// `format` takes the text of the error.
[[gnu::format(printf, 1, 0)]] int fail_without_memory(const char* format) {
    quarx_log(kReportLevel, format, strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
}

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_name_char(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

char* skip_space(char* text) {
    while (is_space(*text))
        ++text;
    return text;
}

// The end of the value that begins at `value`. Of the white space before the end of the line or
// before a comment, the last character is cut when their number is odd, and nothing is cut when it
// is even: meant so, for files whose values have always been read this way.
char* end_of_value(char* value) {
    char* mark = nullptr;
    char* end = value + 1;
    for (; *end != '\0' && *end != '#'; ++end)
        mark = is_space(*end) && mark == nullptr ? end : nullptr;
    return mark != nullptr ? mark : end;
}

struct Definition {
    const char* name; // null: the line defines nothing
    const char* value;
};

// Cuts the line in place.
Definition parse_line(char* line) {
    char* const name = skip_space(line);
    if (*name == '\0' || *name == '#')
        return {};
    char* const name_end = std::find_if_not(name, strchr(name, '\0'), is_name_char);
    if (!is_space(*name_end)) {
        quarx_log(kReportLevel,
                  "Invalid variable definition %s\nExpected a space after variable name\n", name);
        return {};
    }
    char* const value = skip_space(name_end);
    if (*value == '\0' || *value == '#') {
        quarx_log(kReportLevel, "Invalid variable definition %s\nExpected a value", name);
        return {};
    }
    *end_of_value(value) = '\0';
    *name_end = '\0';
    return {name, value};
}

// What `getdelim` reads into and enlarges.
struct LineBuffer {
    char* text = nullptr;
    size_t size = 0;

    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { FreeMemory{}(text); }
};

unsigned grown_capacity(const conf_store& store) {
    const unsigned doubled = store.capacity > kMostSlots / 2 ? kMostSlots : store.capacity * 2;
    if (doubled > store.count)
        return doubled;
    return store.count > kMostSlots - kFirstSlots ? kMostSlots : store.count + kFirstSlots;
}

} // namespace

int conf_read_file_r(const char* path, conf_store* store) {
    if (conf_init_r(store) != 0)
        return -1;
    const InputFile file{fopen(path, "rte")};
    if (file == nullptr) {
        const ErrnoKeeper keeper;
        quarx_log(kReportLevel, "unable to open configuration file %s: %s\n", path,
                  strerror(errno));
        return -1;
    }
    LineBuffer line;
    while (getdelim(&line.text, &line.size, '\n', file.get()) != -1) {
        const Definition definition = parse_line(line.text);
        if (definition.name != nullptr && conf_set_r(definition.name, definition.value, store) != 0)
            return -1;
    }
    const ErrnoKeeper keeper;
    const int read_error = errno;
    conf_finalize_r(store);
    // Without either flag, the line was too long for the memory.
    if (feof(file.get()) != 0 && ferror(file.get()) == 0)
        return 0;
    quarx_log(kReportLevel, "Unable to read configuration file: %s", strerror(read_error));
    return -1;
}

int conf_set_r(const char* name, const char* value, conf_store* store) {
    if (conf_init_r(store) != 0)
        return -1;
    OwnedText name_copy{strdup(name)};
    OwnedText value_copy{strdup(value)};
    if (name_copy == nullptr || value_copy == nullptr)
        return fail_without_memory("Unable to form configuration: %s");

    const conf_entry entry{name_copy.get(), value_copy.get()};
    size_t count = store->count;
    auto* const found = static_cast<conf_entry*>(
        lsearch(&entry, store->entries, &count, sizeof(conf_entry), cmp_conf));
    if (count != store->count) {
        found->name = name_copy.release();
        ++store->count;
        store->sorted = 0;
    } else {
        free(found->value);
    }
    found->value = value_copy.release();
    return 0;
}

const char* conf_get_r(const char* name, const conf_store* store) {
    if (store->count == 0)
        return nullptr;
    const conf_entry key{const_cast<char*>(name), nullptr};
    size_t count = store->count;
    const void* const found =
        store->sorted != 0 ? bsearch(&key, store->entries, count, sizeof(conf_entry), cmp_conf)
                           : lfind(&key, store->entries, &count, sizeof(conf_entry), cmp_conf);
    return found != nullptr ? static_cast<const conf_entry*>(found)->value : nullptr;
}

int conf_init_r(conf_store* store) {
    if (store->entries == nullptr) {
        auto* const entries = static_cast<conf_entry*>(calloc(kFirstSlots, sizeof(conf_entry)));
        if (entries == nullptr)
            return -1;
        store->entries = entries;
        store->capacity = kFirstSlots;
        store->count = 0;
        store->sorted = 1;
        return 0;
    }
    if (store->count < store->capacity)
        return 0;

    constexpr const char* failure = "Unable to read configuration: %s";
    const unsigned capacity = grown_capacity(*store);
    if (capacity <= store->count)
        return fail_without_memory(failure);
    void* const entries = realloc(store->entries, capacity * sizeof(conf_entry));
    if (entries == nullptr)
        return fail_without_memory(failure);
    store->entries = static_cast<conf_entry*>(entries);
    // `conf_free_r` walks the whole capacity.
    std::fill(store->entries + store->capacity, store->entries + capacity, conf_entry{});
    store->capacity = capacity;
    return 0;
}

void conf_finalize_r(conf_store* store) {
    if (store->sorted != 0)
        return;
    if (store->count != 0)
        qsort(store->entries, store->count, sizeof(conf_entry), cmp_conf);
    store->sorted = 1;
}

void conf_free_r(conf_store* store) {
    if (store == nullptr)
        return;
    const ErrnoKeeper keeper;
    for (unsigned slot = 0; slot < store->capacity; ++slot) {
        free(store->entries[slot].name);
        free(store->entries[slot].value);
    }
    free(store->entries);
    free(store);
}
