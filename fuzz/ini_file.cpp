// get_ini_conf_var against a reader that works on views. The input's first line is the section, the
// second the key, the rest is the file.

#include <strings.h>

#include <optional>

#include "fuzz/support.h"
#include "utils/ini_file.h"

namespace {

using corvo::fuzz::require;
using corvo::fuzz::takeLine;
using corvo::fuzz::trimmed;
using corvo::fuzz::WHITE_SPACE;

std::optional<std::string> expectedValue(std::string_view contents, const std::string& section,
                                         const std::string& key) {
    bool counts = false;
    while (!contents.empty()) {
        const std::string whole = corvo::fuzz::cutAtZero(takeLine(contents));
        const std::string_view line =
            trimmed(std::string_view(whole).substr(0, whole.find(';')), WHITE_SPACE);
        const std::size_t equals = line.find('=');
        if (line.size() > 2 && line.front() == '[' && line.back() == ']')
            counts = line == "[" + section + "]";
        else if (counts && equals != std::string_view::npos &&
                 trimmed(line.substr(0, equals), WHITE_SPACE) == key)
            return std::string(trimmed(line.substr(equals + 1), WHITE_SPACE));
    }
    return std::nullopt;
}

int expectedBool(const std::optional<std::string>& value, int fallback) {
    if (value.value_or("").empty())
        return fallback;
    for (const char* word : {"on", "true", "yes", "1"}) {
        if (::strcasecmp(value->c_str(), word) == 0)
            return 1;
    }
    return 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int FALLBACK = 7;
    std::string_view contents = corvo::fuzz::textOf(data, size);
    const std::string section = corvo::fuzz::cutAtZero(takeLine(contents));
    const std::string key = corvo::fuzz::cutAtZero(takeLine(contents));
    const corvo::fuzz::MemoryFile file(contents);
    const auto expected = expectedValue(contents, section, key);

    const corvo::UniqueCString value(get_ini_conf_var(file.path(), section.c_str(), key.c_str()));
    require((value != nullptr) == expected.has_value(), "a value is found where there is one");
    require(value == nullptr || value.get() == *expected, "it is the first match's, trimmed");
    require(get_ini_conf_var_bool(file.path(), section.c_str(), key.c_str(), FALLBACK) ==
                expectedBool(expected, FALLBACK),
            "the switch says what the value says");
    return 0;
}
