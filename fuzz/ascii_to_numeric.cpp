// Util::ASCIIToNumeric against arithmetic on what is left without the blanks and the sign.

#include <cerrno>
#include <limits>
#include <optional>

#include "fuzz/support.h"
#include "utils/numeric.h"

namespace {

using corvo::fuzz::require;

constexpr auto MAXIMUM = std::numeric_limits<unsigned int>::max();
constexpr std::string_view DIGITS = "0123456789";

// The digits of a well-formed number, none for "+".
std::optional<std::string_view> digitsOf(std::string_view text) {
    text = corvo::fuzz::trimmed(text, " \t\n\r");
    if (text.empty())
        return std::nullopt;
    if (text.front() == '+')
        text.remove_prefix(1);
    if (text.find_first_not_of(DIGITS) != std::string_view::npos)
        return std::nullopt;
    return text;
}

// The number, or nothing when it does not fit.
std::optional<unsigned int> valueOf(std::string_view digits) {
    unsigned long long number = 0;
    for (const char digit : digits) {
        number = number * 10 + static_cast<unsigned long long>(digit - '0');
        if (number > MAXIMUM)
            return std::nullopt;
    }
    return static_cast<unsigned int>(number);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr unsigned int BEFORE = 4711;
    const std::string text = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    const auto digits = digitsOf(text);
    const auto expected = digits ? valueOf(*digits) : std::nullopt;

    unsigned int value = BEFORE;
    errno = 0;
    const bool read = Util::ASCIIToNumeric(text.c_str(), value);
    require(read == expected.has_value(), "exactly the numbers that fit are read");
    require(value == expected.value_or(BEFORE), "the value is the number, or untouched");
    require(!digits || expected || errno == ERANGE, "a number that does not fit is ERANGE");
    require(!read || errno == 0, "success leaves errno alone");
    return 0;
}
