#include "mail/quota/maildirsize.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <limits>
#include <system_error>

#include "utils/numeric.h"

namespace {

using corvo::addSaturated;

int fail(int error) noexcept {
    errno = error;
    return 0;
}

// White space as the C locale has it.
constexpr bool isSpace(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// Takes a decimal number, with white space and a sign before it, off the front of `text`.
// std::errc::invalid_argument when there is none, std::errc::result_out_of_range when it is too
// large; both leave `text` alone.
std::errc takeNumber(std::string_view& text, long long& number) noexcept {
    const char* begin = text.data();
    const char* const end = begin + text.size();
    while (begin != end && isSpace(*begin))
        ++begin;
    if (end - begin > 1 && *begin == '+' && isDigit(begin[1]))
        ++begin;
    const auto [rest, error] = std::from_chars(begin, end, number);
    if (error == std::errc())
        text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
    return error;
}

// What follows the byte limit in a header: "S", or "S,<count>C".
int parseCountLimit(std::string_view text, long long* count) noexcept {
    long long number = 0;
    if (text != "S") {
        if (text.size() < 2 || text[1] != ',')
            return fail(EINVAL);
        text.remove_prefix(2);
        if (const std::errc error = takeNumber(text, number); error != std::errc())
            return fail(static_cast<int>(error));
        if (text != "C")
            return fail(EINVAL);
    }
    *count = number;
    return 1;
}

// What follows the bytes in a usage line.
int parseMessageCount(std::string_view text, long long* count) noexcept {
    if (text.empty() || !isSpace(text.front()))
        return fail(EINVAL);
    long long number = 0;
    if (const std::errc error = takeNumber(text, number); error != std::errc())
        return fail(static_cast<int>(error));
    if (!text.empty())
        return fail(EINVAL);
    *count = number;
    return 1;
}

}  // namespace

int parse_string_common(std::string_view text, long long* first, long long* second,
                        int header) noexcept {
    long long number = 0;
    const std::errc error = takeNumber(text, number);
    if (header && error == std::errc::invalid_argument) {
        *first = 0;
        *second = 0;
        return 1;
    }
    if (error != std::errc())
        return fail(static_cast<int>(error));
    if (!(header ? parseCountLimit(text, second) : parseMessageCount(text, second)))
        return 0;
    *first = number;
    return 1;
}

int parse_header_string(std::string_view text, long long* byteLimit,
                        long long* countLimit) noexcept {
    constexpr long long LARGEST = std::numeric_limits<long long>::max();
    const int parsed = parse_string_common(text, byteLimit, countLimit, 1);
    if (parsed && *byteLimit >= 0)
        return 1;
    *byteLimit = LARGEST;
    *countLimit = LARGEST;
    return parsed ? fail(EINVAL) : 0;
}

int parse_usage_lines(std::string_view text, long long* bytes, long long* messages) noexcept {
    long long byteSum = 0;
    long long messageSum = 0;
    while (!text.empty()) {
        const std::size_t length = text.find('\n');
        if (length == std::string_view::npos)
            return fail(EINVAL);
        long long lineBytes = 0;
        long long lineMessages = 0;
        if (!parse_string_common(text.substr(0, length), &lineBytes, &lineMessages, 0))
            return 0;
        byteSum = addSaturated(byteSum, lineBytes);
        messageSum = addSaturated(messageSum, lineMessages);
        text.remove_prefix(length + 1);
    }
    if (byteSum < 0 || messageSum < 0)
        return fail(EINVAL);
    *bytes = byteSum;
    *messages = messageSum;
    return 1;
}

std::size_t format_maildirsize(char (&content)[MAILDIRSIZE_CONTENT_MAX], long byteLimit,
                               long long countLimit, long usedBytes,
                               long long usedMessages) noexcept {
    // Four numbers of at most 20 characters and 5 others always fit.
    return static_cast<std::size_t>(std::snprintf(content, sizeof content,
                                                  "%ldS,%lldC\n%12ld%12lld\n", byteLimit,
                                                  countLimit, usedBytes, usedMessages));
}
