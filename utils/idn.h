// Internationalised domain names (IDNA 2003) between UTF-8 and ASCII.
//
// The plain functions return null on failure and leave the code in idn_errno; running out of memory
// ends the process with status 1 after "Allocation failed". They never throw. Results are newly
// allocated (free with free()) unless stated. Messages go through messlog2, which adds a line of
// its own when errno is not 0. Neither idn_errno nor the URL buffer is thread-safe.

#pragma once

#include <exception>
#include <string>

/// libidn's result code of the last plain conversion that failed; 0 before any did.
extern int idn_errno;

/// What callers say of idn_toascii when it fails: the name and the text of the code.
inline constexpr char IDN_TOASCII_FAILED[] = "idn_toascii(%s) failed: %s";

/// The ASCII form of a host name, or null.
char* idn_toascii(const char* name) noexcept;

/// The same; a failure ends the process with status 1 after "idn_toascii_safe(<name>) failed:
/// <text of the code>".
char* idn_toascii_safe(const char* name) noexcept;

/// The UTF-8 form of a host name. On failure what libidn left, possibly null.
char* idn_toutf8(const char* name) noexcept;

/// The address with its domain (after the first '@') in ASCII form; null without '@' (idn_errno
/// untouched) or when the domain cannot be converted. The local part stays as it is.
char* idn_email_toascii(const char* address) noexcept;

/// The same; a failure ends the process with status 1 after "idn_email_toascii_safe(<address>)
/// failed: <text of the code>".
char* idn_email_toascii_safe(const char* address) noexcept;

/// The URL ("ftp://", "http://", "https://" or no scheme) with its host in ASCII form and all else
/// as it stands, in one static buffer of 4096 bytes that the next call overwrites; what does not
/// fit is cut off. Null on failure, which is logged. Clears errno first.
char* idn_url_toascii(const char* url) noexcept;

/// The text of a libidn code; constant.
const char* idn_strerror(int code) noexcept;

namespace corvo::idn {

/// A failed conversion; what() is idn_strerror(code()).
class IdnaError : public std::exception {
public:
    explicit IdnaError(int code) noexcept : errorCode_(code) {}
    int code() const noexcept { return errorCode_; }
    const char* what() const noexcept override;

private:
    int errorCode_;
};

/// The forms of a host name. Throw IdnaError, with code 3 for a name that holds a zero byte, or
/// std::bad_alloc when libidn succeeds without a result; idn_errno stays as it is.
std::string toAscii(const std::string& name);
std::string toUtf8(const std::string& name);

/// The address with its domain (after the first '@') in ASCII form; without '@' as it stands.
/// Throws as toAscii does.
std::string emailToAscii(const std::string& address);

}  // namespace corvo::idn
