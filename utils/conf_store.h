// A store of name/value pairs, and the reader of configuration files made of "NAME value" lines.
//
// Functions return 0, or -1 with errno; reasons are logged once, through corvo_log at priority 12:
// the stream writers never print that, syslog takes it as a warning of the user facility. None
// throws. All memory is malloc's.
//
// A file's line is empty, a comment ("#..."), or
//     NAME value   # comment
// with a name of letters, digits and "_", white space after it, and a value that runs to the first
// "#" or the end of the line. White space around the value goes, inside it stays; nothing quotes.

#pragma once

#include <cstddef>

struct conf_entry {
    char* name;   // owned by the store
    char* value;  // owned by the store
};

/// Zero-initialise before the first call.
struct conf_store {
    conf_entry* entries;
    std::size_t capacity;  // slots allocated
    std::size_t count;     // slots used
    bool sorted;           // entries are in strcmp order by name
};

/// Prepares a zero-initialised store (20 slots, sorted), or makes room for one more entry by
/// doubling a full one. -1 is ENOMEM; the store is then as it was.
int conf_init_r(conf_store* store) noexcept;

/// Sets a pair, making room for it; both strings are copied. A name that is there already takes the
/// new value, a new one is appended and leaves the store unsorted. -1 is ENOMEM; the store's
/// pairs are then as they were.
int conf_set_r(const char* name, const char* value, conf_store* store) noexcept;

/// Sorts the entries unless they are sorted.
void conf_finalize_r(conf_store* store) noexcept;

/// The value, which belongs to the store, or null. Searches by halves in a sorted store.
const char* conf_get_r(const char* name, const conf_store* store) noexcept;

/// Reads a file into the store and sorts it. Lines that are no definition are logged and skipped;
/// a later definition of a name wins. -1 when the file cannot be opened or read, or for ENOMEM;
/// pairs read until then stay in the store.
int conf_read_file_r(const char* path, conf_store* store) noexcept;

/// Frees names, values, the array and the store itself, which came from malloc. Null is allowed.
void conf_free_r(conf_store* store) noexcept;
