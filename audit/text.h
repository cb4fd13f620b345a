// Texts from a database or a disk, made fit to be printed.

#pragma once

#include <string>
#include <string_view>

namespace corvo::audit {

/// For a terminal: a control character, a character that changes the direction of writing, and a
/// byte that is no UTF-8 stand as "\xHH", byte by byte, and a backslash as "\\".
std::string printable(std::string_view text);

/// For JSON, whose writer escapes control characters itself: a byte that is no UTF-8 stands as
/// "\xHH". All else stays.
std::string validUtf8(std::string_view text);

/// A JSON text for a terminal: what its writer has left of the characters that printable() escapes
/// stands as "\uHHHH", which changes no value.
std::string printableJson(std::string_view json);

/// "1,204".
std::string withSeparators(unsigned long long number);

/// "1 mailbox", "1,204 mailboxes".
std::string counted(unsigned long long number, const char* one, const char* many);

}  // namespace corvo::audit
