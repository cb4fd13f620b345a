// The text of a Maildir++ `maildirsize` file: a header with the limits, then lines of usage to be
// summed. No I/O and no logging here.
//
// The parsing functions return 1, or 0 with errno: EINVAL for a malformed text, ERANGE for a number
// that does not fit 64 bits. Outputs are untouched on failure unless stated. None throws.

#pragma once

#include <cstddef>
#include <string_view>

/// Size of the buffer that holds whatever format_maildirsize writes.
inline constexpr std::size_t MAILDIRSIZE_CONTENT_MAX = 100;

/// Reads the two numbers of one line, given without its line feed. A header is "<bytes>S",
/// "<bytes>S,<count>C" with any one character for "S", or anything that begins with no number,
/// which reads as 0 and 0. Any other line is "<bytes> <count>", each number with white space before
/// it.
int parse_string_common(std::string_view text, long long* first, long long* second,
                        int header) noexcept;

/// Reads the header line. A negative byte limit is malformed. On failure both limits become the
/// largest value.
int parse_header_string(std::string_view text, long long* byteLimit,
                        long long* countLimit) noexcept;

/// Sums usage lines, each of which must end in a line feed; no line at all is a usage of 0. Sums
/// are held at the ends of the 64-bit range; a negative sum is malformed.
int parse_usage_lines(std::string_view text, long long* bytes, long long* messages) noexcept;

/// Writes the header and one usage line, and returns their length. Sizes are in bytes.
std::size_t format_maildirsize(char (&content)[MAILDIRSIZE_CONTENT_MAX], long byteLimit,
                               long long countLimit, long usedBytes,
                               long long usedMessages) noexcept;
