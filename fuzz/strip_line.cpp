// strip_line against cutting and trimming a view.

#include <cstring>

#include "fuzz/support.h"
#include "utils/strings.h"

using corvo::fuzz::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string line = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    const std::string before = line;
    const std::string_view expected = corvo::fuzz::trimmed(
        std::string_view(before).substr(0, before.find(';')), corvo::fuzz::WHITE_SPACE);

    const std::size_t length = strip_line(line.data());
    require(length == std::strlen(line.c_str()), "the result is the new length");
    require(line.c_str() == expected, "what stands before the comment is left, trimmed");
    require(strip_line(line.data()) == length, "a stripped line stays as it is");
    return 0;
}
