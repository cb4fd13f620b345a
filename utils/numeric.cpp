#include "utils/numeric.h"

#include <cerrno>
#include <cstring>
#include <limits>

namespace {

const char* skipBlanks(const char* text) {
    return text + std::strspn(text, " \t\n\r");
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool Util::ASCIIToNumeric(const char* text, unsigned int& value) noexcept {
    constexpr unsigned int MAXIMUM = std::numeric_limits<unsigned int>::max();
    const char* position = skipBlanks(text);
    if (*position == '\0')
        return false;
    if (*position == '+')
        ++position;
    unsigned int number = 0;
    for (; isDigit(*position); ++position) {
        const auto digit = static_cast<unsigned int>(*position - '0');
        if (number > (MAXIMUM - digit) / 10) {
            errno = ERANGE;
            return false;
        }
        number = number * 10 + digit;
    }
    if (*skipBlanks(position) != '\0')
        return false;
    value = number;
    return true;
}
