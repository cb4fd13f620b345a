// The plain conversions of addresses and host names against the throwing ones.

#include <algorithm>
#include <optional>

#include "fuzz/support.h"
#include "utils/idn.h"

namespace {

using corvo::fuzz::require;

// Either the text or libidn's code.
struct Converted {
    std::optional<std::string> text;
    int code = 0;
};

template <typename Conversion>
Converted convert(Conversion conversion, const std::string& text) {
    try {
        return {conversion(text), 0};
    } catch (const corvo::idn::IdnaError& e) {
        require(e.code() != 0, "a failure has a code");
        return {std::nullopt, e.code()};
    }
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

template <typename Plain>
void requireSame(Plain plain, const std::string& text, const Converted& expected,
                 const char* property) {
    idn_errno = 0;
    const corvo::UniqueCString result(plain(text.c_str()));
    require(idn_errno == expected.code, "idn_errno is the code of the failure");
    if (expected.text)
        require(result != nullptr && result.get() == *expected.text, property);
}

void checkHost(const std::string& host) {
    const Converted ascii = convert(corvo::idn::toAscii, host);
    requireSame(idn_toascii, host, ascii, "both ASCII forms of a host are the same");
    requireSame(idn_toutf8, host, convert(corvo::idn::toUtf8, host),
                "both UTF-8 forms of a host are the same");
    require(!ascii.text || isAscii(*ascii.text), "the ASCII form is ASCII");
}

void checkAddress(const std::string& address, std::size_t at) {
    const Converted expected = convert(corvo::idn::emailToAscii, address);
    requireSame(idn_email_toascii, address, expected, "both forms of an address are the same");
    const corvo::UniqueCString plain(idn_email_toascii(address.c_str()));
    require((plain != nullptr) == expected.text.has_value(), "a failure is a null");
    if (expected.text)
        require(*expected.text ==
                    address.substr(0, at + 1) + corvo::idn::toAscii(address.substr(at + 1)),
                "the part up to the first @ stays");
}

void checkText(const std::string& text) {
    require(corvo::idn::emailToAscii(text) == text, "without @ a text stays as it stands");
    idn_errno = -1;
    const corvo::UniqueCString plain(idn_email_toascii(text.c_str()));
    require(plain == nullptr && idn_errno == -1, "without @ there is no plain form");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string address = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    const std::size_t at = address.find('@');
    if (at == std::string::npos) {
        checkHost(address);
        checkText(address);
    } else {
        checkHost(address.substr(at + 1));
        checkAddress(address, at);
    }
    return 0;
}
