// What the program prints, before it takes a form.

#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace corvo::audit {

/// Nothing, or a value of a record. Texts are bytes as they came from the database or the disk.
using Value = std::variant<std::monostate, bool, long long, std::size_t, std::string,
                           std::vector<std::string>>;

/// Named values, in the order in which they are printed.
using Record = std::vector<std::pair<std::string, Value>>;

/// Nothing for an empty text.
Value valueUnlessEmpty(const std::string& text);

/// A JSON object, and a list: valid UTF-8, and fit for a terminal. A byte that is no UTF-8 stands
/// as "\xHH".
std::string jsonOf(const Record& record);
std::string jsonOf(const std::vector<std::string>& texts);

}  // namespace corvo::audit
