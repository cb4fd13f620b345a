// Values from sectioned ini files.
//
//     [section]
//     key = value   ; comment
//
// Names of sections and keys are compared exactly; a section's name is all that stands between the
// brackets. Lines may end in CRLF; one of more than 128 KiB is left out. None throws.

#pragma once

#include <span>

#include "utils/guards.h"

/// The value of `key` in `section`, newly allocated (free with free()): the first match, trimmed,
/// possibly empty. Null when there is none, when `path` is no regular file (silently), or when it
/// cannot be opened ("Failed to open %s: %s" on standard error, without a newline). ';' starts a
/// comment, in values too. Clears errno first; null with ENOMEM says that there was no memory for
/// the value, or none to open the file.
char* get_ini_conf_var(const char* path, const char* section, const char* key) noexcept;

/// A key that is looked for, and where its value goes.
struct ini_value {
    const char* key;
    corvo::UniqueCString& value;
};

/// get_ini_conf_var for several keys, which differ from each other, in one pass over the file. One
/// that cannot be opened is reported once for each, or once when memory ran out. Returns 0 when
/// every key was found, else -1; a key that was not found has a null value then. Not for two
/// threads at once.
int get_ini_conf_vars(const char* path, const char* section,
                      std::span<const ini_value> wanted) noexcept;

/// 1 for "on", "true", "yes" in any case and for "1"; `fallback` when the key is missing or empty;
/// else 0. Reads as get_ini_conf_var does.
int get_ini_conf_var_bool(const char* path, const char* section, const char* key,
                          int fallback) noexcept;
