// Numbers that the panel database keeps as text.

#pragma once

#include <optional>
#include <string>

namespace corvo::mail::restore {

/// The number, when it fits and all of `text` is it: decimal digits after at most one sign. For
/// short, int and long long.
template <typename Number>
std::optional<Number> numberIn(const std::string& text);

/// How a warning shows the text.
enum class Quoted { yes, no };

/// As numberIn. Without a number a line on corvo::uerr: "Warning: invalid <what> <text> stored in
/// Corvo DB, ignored", the text in single quotes or as it stands.
template <typename Number>
std::optional<Number> numberOrWarn(const std::string& text, const char* what,
                                   Quoted quoted = Quoted::yes);

}  // namespace corvo::mail::restore
