#include "audit/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

namespace corvo::audit {

namespace {

constexpr unsigned char byteAt(std::string_view text, std::size_t position) {
    return static_cast<unsigned char>(text[position]);
}

struct Character {
    std::size_t length;  // in bytes; 0: no UTF-8
    char32_t code;
};

// How many bytes the first byte of a character announces, and its own bits of the code.
Character announcedBy(unsigned char first) {
    if (first < 0x80)
        return {1, first};
    if (first >= 0xc2 && first < 0xe0)
        return {2, first & 0x1fU};
    if (first >= 0xe0 && first < 0xf0)
        return {3, first & 0x0fU};
    if (first >= 0xf0 && first < 0xf5)
        return {4, first & 0x07U};
    return {0, 0};
}

// Overlong forms, halves of pairs and what lies beyond the last character are no UTF-8.
bool isInRange(const Character& character) {
    constexpr char32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isHalfOfPair = character.code >= 0xd800 && character.code < 0xe000;
    return character.code >= SMALLEST[character.length] && character.code < 0x110000 &&
           !isHalfOfPair;
}

Character firstOf(std::string_view text) {
    Character character = announcedBy(byteAt(text, 0));
    if (character.length > text.size())
        return {0, 0};
    for (std::size_t i = 1; i < character.length; ++i) {
        const unsigned char next = byteAt(text, i);
        if ((next & 0xc0U) != 0x80)
            return {0, 0};
        character.code = (character.code << 6U) | (next & 0x3fU);
    }
    return isInRange(character) ? character : Character{0, 0};
}

// The first control character that is not below the space.
constexpr char32_t DELETE = 0x7f;

bool drivesTerminals(char32_t code) {
    const bool isControl = code < 0x20 || (code >= DELETE && code < 0xa0);
    const bool turnsDirection = code == 0x061c || code == 0x200e || code == 0x200f ||
                                (code >= 0x2028 && code <= 0x202e) ||
                                (code >= 0x2066 && code <= 0x2069);
    return isControl || turnsDirection;
}

void appendEscaped(std::string& result, std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i)
        result += fmt::format("\\x{:02x}", byteAt(bytes, i));
}

// Copies character by character; `append(result, bytes, code)` is for those that are UTF-8.
template <typename Append>
std::string escaped(std::string_view text, Append append) {
    std::string result;
    while (!text.empty()) {
        const Character character = firstOf(text);
        const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
        if (character.length == 0)
            appendEscaped(result, bytes);
        else
            append(result, bytes, character.code);
        text.remove_prefix(bytes.size());
    }
    return result;
}

}  // namespace

std::string printable(std::string_view text) {
    return escaped(text, [](std::string& result, std::string_view bytes, char32_t code) {
        if (drivesTerminals(code))
            appendEscaped(result, bytes);
        else
            result.append(bytes == "\\" ? "\\\\" : bytes);
    });
}

std::string validUtf8(std::string_view text) {
    return escaped(text, [](std::string& result, std::string_view bytes, char32_t /*code*/) {
        result.append(bytes);
    });
}

std::string printableJson(std::string_view json) {
    return escaped(json, [](std::string& result, std::string_view bytes, char32_t code) {
        if (drivesTerminals(code) && code >= DELETE)
            result += fmt::format("\\u{:04x}", static_cast<unsigned>(code));
        else
            result.append(bytes);
    });
}

std::string withSeparators(unsigned long long number) {
    std::string digits = std::to_string(number);
    for (std::size_t end = digits.size(); end > 3; end -= 3)
        digits.insert(end - 3, ",");
    return digits;
}

std::string counted(unsigned long long number, const char* one, const char* many) {
    return withSeparators(number) + " " + (number == 1 ? one : many);
}

}  // namespace corvo::audit
