// Templates: text with variables, names of 1 to 32 characters between an opening and a closing
// character, which are replaced by values from a table.
//
// Works in the caller's buffers and allocates nothing. There are no errors: each irregular input
// has its outcome below, and repl_ctl::result names what was met. Lookups are binary searches, so a
// table is sorted by name in byte order (that of strcmp); templ_quick_sort sorts one.
#pragma once

#include <cstdint>

// One variable: `name` without the bracketing characters, and the text that replaces it, which may
// be null. Both are NUL-terminated and belong to the caller.
struct par_templ {
    const char* name;
    const char* value;
};

// Control and result of one substitution.
struct repl_ctl {
    uint32_t consumed; // out: characters of the source that were used up
    uint32_t written;  // out: characters put into the output
    uint32_t options;  // in: kValuesWhole, kKeepUnknown
    uint32_t result;   // out: kValueLeftOut, kUnknownMet
};

// Options. A value that does not fit is left out whole, and all behind it; else it is cut.
inline constexpr uint32_t kValuesWhole = 1;
// An unknown variable stays as it is written; else it is removed.
inline constexpr uint32_t kKeepUnknown = 2;

// Results. A value was left out for lack of room.
inline constexpr uint32_t kValueLeftOut = 1;
// An unknown variable was met while it had to stay.
inline constexpr uint32_t kUnknownMet = 2;

// Substitutes the variables of `src`, bracketed by `open` and `close`, from the `count` entries of
// `table`, and writes the text to `dst`, which it returns. At most `dstsize` characters are written
// and counted in ctl->written; a NUL follows only while there is room for it, so callers terminate
// the text themselves. `dst` has one byte at least, set to NUL even if `dstsize` is 0.
//
// Not variables, and kept as they are: an empty name, a name without a closing character within 33
// characters or before the end of the text. A variable without a value is removed. The output is
// empty for a null or empty `src`, and for an empty table; that is meant.
char* templ_replace(char open, char close, const par_templ* table, unsigned count, const char* src,
                    char* dst, unsigned dstsize, repl_ctl* ctl);

// The index of the entry called `name` in the sorted `table` of `count` entries, -1 for none and
// for a null `name` or `table`. Of several entries of one name, the first that the halving meets.
int templ_found(const char* name, const par_templ* table, int count);

// Sorts the `count` entries of `table` by name, in place. Entries of one name may change order.
void templ_quick_sort(par_templ* table, int count);

// Sorts the entries `left` to `right`, both included.
void qs(par_templ* table, int left, int right);
