#include "utils/idn.h"

#include <idna.h>
#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "utils/format.h"
#include "utils/guards.h"
#include "utils/messlog.h"

int idn_errno = 0;

namespace {

using Converter = int (*)(const char* input, char** output, int flags);

void noteFailure(int code) {
    idn_errno = code;
    if (code == IDNA_MALLOC_ERROR)
        messlog2(1, 1, "Allocation failed");
}

// `result`, unless it is null: then the process ends.
char* orExit(char* result, const char* function, const char* argument) {
    if (result == nullptr)
        messlog2(1, 1, "%s(%s) failed: %s", function, argument, idn_strerror(idn_errno));
    return result;
}

std::string convert(const std::string& name, Converter converter) {
    // libidn would convert no more than what stands before a zero byte.
    if (name.find('\0') != std::string::npos)
        throw corvo::idn::IdnaError(IDNA_CONTAINS_NON_LDH);
    char* output = nullptr;
    const int code = converter(name.c_str(), &output, 0);
    const corvo::UniqueCString result(output);
    if (code != IDNA_SUCCESS)
        throw corvo::idn::IdnaError(code);
    if (result == nullptr)
        throw std::bad_alloc();
    return result.get();
}

constexpr std::size_t URL_SIZE = 4096;  // bytes, the terminating zero included

// A text that is cut where URL_SIZE ends.
struct UrlText {
    char text[URL_SIZE] = "";
    std::size_t length = 0;

    void append(const char* piece, std::size_t size) {
        size = std::min(size, URL_SIZE - 1 - length);
        std::memcpy(text + length, piece, size);
        length += size;
        text[length] = '\0';
    }

    // A sub-match of `url`; nothing if it did not match.
    void append(const char* url, const regmatch_t& part) {
        if (part.rm_so != -1)
            append(url + part.rm_so, static_cast<std::size_t>(part.rm_eo - part.rm_so));
    }
};

enum UrlPart { WHOLE, SCHEME, USER, HOST, REST, URL_PARTS };

// Finds the parts of a URL; false when it has not the form of one, which is logged.
bool matchUrl(const char* url, regmatch_t (&parts)[URL_PARTS]) {
    char reason[256];
    regex_t pattern;
    errno = 0;  // the messages must not show an old one
    int code = ::regcomp(&pattern, "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$", REG_EXTENDED);
    if (code != 0) {
        ::regerror(code, &pattern, reason, sizeof reason);
        messlog2(1, 1, "regcomp() failed: %s", reason);
    }
    code = ::regexec(&pattern, url, URL_PARTS, parts, 0);
    if (code != 0) {
        ::regerror(code, &pattern, reason, sizeof reason);
        messlog2(0, 0, "regexec() failed: %s", reason);
    }
    ::regfree(&pattern);
    return code == 0;
}

}  // namespace

char* idn_toascii(const char* name) noexcept {
    char* output = nullptr;
    const int code = idna_to_ascii_8z(name, &output, 0);
    if (code == IDNA_SUCCESS)
        return output;
    noteFailure(code);
    return nullptr;
}

char* idn_toascii_safe(const char* name) noexcept {
    return orExit(idn_toascii(name), "idn_toascii_safe", name);
}

char* idn_toutf8(const char* name) noexcept {
    char* output = nullptr;
    const int code = idna_to_unicode_8z8z(name, &output, 0);
    if (code != IDNA_SUCCESS)
        noteFailure(code);
    return output;
}

char* idn_email_toascii(const char* address) noexcept {
    const char* at = std::strchr(address, '@');
    if (at == nullptr)
        return nullptr;
    const corvo::UniqueCString domain(idn_toascii(at + 1));
    if (domain == nullptr)
        return nullptr;
    return asprintf_safe("%.*s@%s", static_cast<int>(at - address), address, domain.get());
}

char* idn_email_toascii_safe(const char* address) noexcept {
    return orExit(idn_email_toascii(address), "idn_email_toascii_safe", address);
}

char* idn_url_toascii(const char* url) noexcept {
    static UrlText result;
    regmatch_t parts[URL_PARTS];
    if (!matchUrl(url, parts))
        return nullptr;
    if (parts[HOST].rm_so == -1) {
        messlog2(0, 0, "no hostname found in URL");
        return nullptr;
    }
    UrlText host;
    host.append(url, parts[HOST]);
    const corvo::UniqueCString asciiHost(idn_toascii(host.text));
    if (asciiHost == nullptr) {
        messlog2(0, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
        return nullptr;
    }
    // Built aside: `url` may be the result of the call before.
    UrlText converted;
    converted.append(url, parts[SCHEME]);
    converted.append(url, parts[USER]);
    converted.append(asciiHost.get(), std::strlen(asciiHost.get()));
    converted.append(url, parts[REST]);
    result = converted;
    return result.text;
}

const char* idn_strerror(int code) noexcept {
    switch (code) {
        case 0:
            return "Success";
        case 1:
            return "Stringprep error";
        case 2:
            return "Punycode error";
        case 3:
            return "Contains non-LDH characters";
        case 4:
            return "Contains minus";
        case 5:
            return "Invalid length";
        case 6:
            return "ACE prefix not found";
        case 7:
            return "Verify error";
        case 8:
            return "ACE prefix found";
        case 9:
            return "Iconv error";
        case 201:
            return "Cannot allocate buffer";
        default:
            return "Unknown error";
    }
}

namespace corvo::idn {

const char* IdnaError::what() const noexcept {
    return idn_strerror(errorCode_);
}

std::string toAscii(const std::string& name) {
    return convert(name, idna_to_ascii_8z);
}

std::string toUtf8(const std::string& name) {
    return convert(name, idna_to_unicode_8z8z);
}

std::string emailToAscii(const std::string& address) {
    const std::size_t at = address.find('@');
    if (at == std::string::npos)
        return address;
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

}  // namespace corvo::idn
