// idn_url_toascii against a splitter that takes the parts one after another.

#include <optional>

#include "fuzz/support.h"
#include "utils/idn.h"

namespace {

using corvo::fuzz::require;

constexpr std::size_t LONGEST = 4095;  // bytes of a result

struct Parts {
    std::string_view before;  // scheme and user
    std::string_view host;
    std::string_view rest;
};

// Splits behind the first `length` characters; nothing when no host begins there.
std::optional<Parts> splitAt(std::string_view url, std::size_t length) {
    const std::string_view behind = url.substr(length);
    const std::string_view host = behind.substr(0, behind.find_first_of("/:"));
    if (host.empty())
        return std::nullopt;
    return Parts{url.substr(0, length), host, behind.substr(host.size())};
}

// Splits behind a user, or without one where none leaves a host.
std::optional<Parts> splitBehindScheme(std::string_view url, std::size_t scheme) {
    const std::size_t at = url.find('@', scheme);
    if (at != std::string_view::npos && at > scheme) {
        if (const auto parts = splitAt(url, at + 1))
            return parts;
    }
    return splitAt(url, scheme);
}

std::optional<Parts> split(std::string_view url) {
    for (const std::string_view scheme : {"ftp://", "http://", "https://"}) {
        if (!url.starts_with(scheme))
            continue;
        if (const auto parts = splitBehindScheme(url, scheme.size()))
            return parts;
    }
    return splitBehindScheme(url, 0);
}

std::optional<std::string> expectedForm(std::string_view url) {
    const auto parts = split(url);
    if (!parts)
        return std::nullopt;
    try {
        const std::string host = corvo::idn::toAscii(std::string(parts->host.substr(0, LONGEST)));
        return (std::string(parts->before) + host + std::string(parts->rest)).substr(0, LONGEST);
    } catch (const corvo::idn::IdnaError&) {
        return std::nullopt;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string url = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    const auto expected = expectedForm(url);
    const char* result = idn_url_toascii(url.c_str());
    require((result != nullptr) == expected.has_value(), "a URL with a sound host is converted");
    require(result == nullptr || result == *expected, "all but the host stays as it stands");
    return 0;
}
