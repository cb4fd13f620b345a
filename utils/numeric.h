// Strict reading of decimal numbers, and sums that cannot overflow.

#pragma once

#include <limits>

namespace corvo {

/// The sum, held at the nearest end of the 64-bit range when it lies outside.
inline long long addSaturated(long long a, long long b) noexcept {
    using Limits = std::numeric_limits<long long>;
    long long sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? Limits::max() : Limits::min();
}

}  // namespace corvo

/// Holds one function; that it is a class is part of the interface.
class Util {
public:
    /// Reads an unsigned decimal number with an optional "+" and blanks (space, tab, newline,
    /// carriage return) around it; a "+" alone is 0. Returns false, leaving `value` alone, for an
    /// empty text, a "-", or anything else beside the number, and with errno ERANGE for a number
    /// that does not fit. `text` must not be null; nothing is logged.
    static bool ASCIIToNumeric(const char* text, unsigned int& value) noexcept;
};
