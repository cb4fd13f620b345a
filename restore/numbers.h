// Numbers that the panel database keeps as text.

#pragma once

#include <optional>
#include <string>

namespace corvo::mail::restore {

/// The number, when it fits and all of `text` is it: decimal digits after at most one sign.
/// Otherwise nothing, and `before` + `text` + `after` is a line on corvo::uerr. For short, int and
/// long long.
template <typename Number>
std::optional<Number> numberOrWarn(const std::string& text, const char* before, const char* after);

}  // namespace corvo::mail::restore
