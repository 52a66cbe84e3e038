// The panel's configuration file, /etc/qrx/qrx.conf (qrx.conf(5)), and its compiled-in defaults.
//
// The file is text, one variable a line: NAME, white space, value. "#" starts a comment; a
// malformed line is skipped with a report. The last definition of a name wins. A line ends
// at its line feed, and what is read of it ends at its first NUL byte. Lines and their number are
// limited by memory alone.
//
// Reports about the file go through `quarx_log` at level 12, which the library's initial log level
// drops. Nothing here ends the process. The strings that the lookups return belong to the library,
// are valid as long as the store they come from (the process's own is never freed) and must not be
// changed or freed. `errno` tells something after a failure only. No null name, value, path or
// store is accepted, except by `conf_free_r`.
#pragma once

// Positions in the table of well-known variables that the system's own code asks for.
constexpr int kConfMailnamesD = 1;    // QUARX_MAILNAMES_D
constexpr int kConfProductRootD = 28; // PRODUCT_ROOT_D

// --- The process's own configuration, read from the file by the first call that needs it ---

// Loads the file once. Returns 0 when it is loaded, now or before. Returns -1 with `errno` when it
// can't be read (then the next call tries again); lack of memory for the store is also reported
// with `messlog2`.
int autoprepend();

// The file's value of `name`; null when the file doesn't define it or can't be loaded.
const char* qrxConfGet(const char* name);

// The same for the variable at `index` of the table, 0 to 29 (not checked). A value that was found
// is remembered, a missing one is looked for again.
const char* qrxConfGetByIndex(int index);

// The file's value of the variable at `index` (0 to 29, not checked), else its compiled-in default;
// never null.
const char* qrxConfGetDefaultByIndex(int index);

// The file's value of a well-known variable, else its compiled-in default. Null, with a message by
// `messlog2`, when `name` isn't in the table; the table's last entry, which only marks its end,
// doesn't count.
const char* qrxConfGetDefault(const char* name);

// --- Stores, one a file ---

struct conf_entry {
    char* name;
    char* value;
};

// All zero is a new, empty store. It owns its array, of `capacity` slots, and every string in it;
// slots beyond `count` are zero.
struct conf_store {
    conf_entry* entries;
    unsigned capacity;
    unsigned count;
    int sorted; // 1: the entries are in `strcmp` order of their names
};

// Reads the file into the store, over what it already holds, and sorts it. Returns 0, or -1 with
// `errno` of what failed: opening, reading, or memory. What was read until then stays in the store,
// which is to be freed all the same.
int conf_read_file_r(const char* path, conf_store* store);

// Gives `name` the value; both are copied. A new name is appended and leaves the store unsorted.
// Returns 0, or -1 with `errno` ENOMEM and the store's entries unchanged.
int conf_set_r(const char* name, const char* value, conf_store* store);

// The value of `name`, or null. By binary search in a sorted store, else entry by entry.
const char* conf_get_r(const char* name, const conf_store* store);

// Makes room for one more entry: 20 slots for a new store, twice as many for a full one. Returns 0,
// or -1 with `errno` ENOMEM and the store unchanged.
int conf_init_r(conf_store* store);

// Sorts the store by name unless it is sorted.
void conf_finalize_r(conf_store* store);

// Frees the store, which came from `malloc`, with all it owns. Null is left alone.
void conf_free_r(conf_store* store);
