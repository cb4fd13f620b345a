// What a cell of the panel database may hold when nobody has looked at it.

#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace corvo::faults {

/// A column's value; empty for NULL.
using Cell = std::optional<std::string>;

/// What is expected in a column, and so what goes wrong there.
enum class Meaning {
    domain,   // a domain name
    name,     // a mail name
    address,  // of a forward
    number,   // a quota, a status
    word,     // one of a few words
    key,  // the id that rows of several tables share; pasted into statements by those who read it
};

/// Every value that is tried for sure: NULL, the empty text, texts that mean something to a file
/// system, a shell, SQL, a terminal or IDNA, every byte, lengths around the limits.
std::vector<Cell> knownValues(Meaning meaning);

/// One more, from a generator: bytes at random, or known values cut, joined and mixed.
Cell randomValue(Meaning meaning, std::mt19937_64& random);

/// A number below `limit`, the same one on every platform.
std::size_t below(std::size_t limit, std::mt19937_64& random);

}  // namespace corvo::faults
