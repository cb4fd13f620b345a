// Trimming and lower-casing.
//
// White space is what isspace() says in the current locale. Texts are changed in place and must not
// be null. None of these logs or changes errno, except where stated; none throws, except
// corvo::to_lower.

#pragma once

#include <cstddef>
#include <string>

/// Trims a configuration line: everything from the first ';' on is a comment and goes, then white
/// space at both ends. Returns the new length.
std::size_t strip_line(char* line) noexcept;

/// Removes white space at both ends. Returns `text`.
char* corvo_trim(char* text) noexcept;

/// Removes white space at the end. Returns `text`.
char* corvo_rtrim(char* text) noexcept;

/// Removes every trailing `symbol`. Returns `text`.
char* corvo_rtrim_symbol(char* text, char symbol) noexcept;

/// Removes white space at both ends. Returns the new length.
std::size_t strip_str(char* text) noexcept;

/// Lower-cases the ASCII letters. Returns `text`.
char* strtolower(char* text) noexcept;

/// A copy with the ASCII letters lower-cased, newly allocated; free with free(). Null with errno
/// ENOMEM when out of memory, after "System error: %s\n" through messlog2.
char* strtolower_dynamic(const char* text) noexcept;

namespace corvo {

/// Lower-cases character by character in the process's global locale (the classic one by default:
/// only ASCII letters change).
std::string to_lower(const std::string& text);

}  // namespace corvo
