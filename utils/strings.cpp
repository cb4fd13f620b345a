#include "utils/strings.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "utils/messlog.h"

namespace {

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Cuts trailing characters for which `drop` holds; returns the new length.
template <typename Predicate>
std::size_t trimEnd(char* text, Predicate drop) {
    std::size_t length = std::strlen(text);
    while (length > 0 && drop(text[length - 1]))
        --length;
    text[length] = '\0';
    return length;
}

}  // namespace

std::size_t strip_line(char* line) noexcept {
    line[std::strcspn(line, ";")] = '\0';
    return strip_str(line);
}

char* corvo_trim(char* text) noexcept {
    strip_str(text);
    return text;
}

char* corvo_rtrim(char* text) noexcept {
    trimEnd(text, isBlank);
    return text;
}

char* corvo_rtrim_symbol(char* text, char symbol) noexcept {
    trimEnd(text, [symbol](char c) { return c == symbol; });
    return text;
}

std::size_t strip_str(char* text) noexcept {
    const std::size_t end = trimEnd(text, isBlank);
    std::size_t start = 0;
    while (isBlank(text[start]))
        ++start;
    std::memmove(text, text + start, end - start + 1);
    return end - start;
}

char* strtolower(char* text) noexcept {
    for (char* c = text; *c != '\0'; ++c) {
        if (*c >= 'A' && *c <= 'Z')
            *c = static_cast<char>(*c - 'A' + 'a');
    }
    return text;
}

char* strtolower_dynamic(const char* text) noexcept {
    char* copy = ::strdup(text);
    if (copy == nullptr) {
        messlog2(0, 0, "System error: %s\n", std::strerror(errno));
        return nullptr;
    }
    return strtolower(copy);
}

namespace corvo {

std::string to_lower(const std::string& text) {
    return boost::algorithm::to_lower_copy(text);
}

}  // namespace corvo
