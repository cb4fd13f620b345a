#include "mail/home/mail_paths.h"

#include <cerrno>
#include <cstdio>

#include "utils/guards.h"
#include "utils/idn.h"
#include "utils/log.h"
#include "utils/runtime_config.h"
#include "utils/safe_path.h"
#include "utils/strings.h"

namespace {

constexpr std::size_t MAX_MAILNAME = 245;  // bytes
constexpr std::size_t MAX_DOMAIN = 255;    // bytes
constexpr std::size_t MAX_LABEL = 63;      // bytes

constexpr std::size_t USUAL_HOME = 127;  // bytes; most homes' paths are shorter

constexpr std::string_view MAILNAME_MARKS = ".-_&+'";

// Of ASCII, whatever the locale says.
bool isLetterOrDigit(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isMailnameCharacter(char c) noexcept {
    return isLetterOrDigit(c) || MAILNAME_MARKS.find(c) != std::string_view::npos;
}

bool isLabelCharacter(char c) noexcept {
    return isLetterOrDigit(c) || c == '-';
}

bool consistsOf(bool (*allowed)(char), std::string_view text) noexcept {
    for (const char c : text)
        if (!allowed(c))
            return false;
    return true;
}

bool isMailname(std::string_view name) noexcept {
    return !name.empty() && name.size() <= MAX_MAILNAME && !name.starts_with('.') &&
           !name.ends_with('.') && name.find("..") == std::string_view::npos &&
           consistsOf(isMailnameCharacter, name);
}

// A "-" at the end is for the caller to judge.
bool isLabel(std::string_view label) noexcept {
    return !label.empty() && label.size() <= MAX_LABEL && !label.starts_with('-') &&
           consistsOf(isLabelCharacter, label);
}

bool isDomainName(std::string_view name) noexcept {
    if (name.size() > MAX_DOMAIN)
        return false;
    for (std::size_t dot = name.find('.'); dot != std::string_view::npos; dot = name.find('.')) {
        const std::string_view label = name.substr(0, dot);
        if (!isLabel(label) || label.ends_with('-'))
            return false;
        name.remove_prefix(dot + 1);
    }
    return isLabel(name);
}

bool isFullMailname(std::string_view address) noexcept {
    const std::size_t at = address.find('@');
    return at != std::string_view::npos && isMailname(address.substr(0, at)) &&
           isDomainName(address.substr(at + 1));
}

int judge(bool (*valid)(std::string_view), const char* name) noexcept {
    return name != nullptr && valid(name) ? 1 : 0;
}

enum class Formatted { done, tooLong, refused };

Formatted refuseNames() noexcept {
    corvo::Log().line(LOG_ERR, "empty mailname or maildomain");
    return Formatted::refused;
}

// What is refused has been logged.
Formatted formatPath(char* dst, std::size_t size, const char* mailname, const char* domain,
                     const char* file) noexcept {
    if (is_mailname_valid(mailname) == 0 || domain == nullptr)
        return refuseNames();
    const corvo::UniqueCString asciiDomain(idn_toascii(domain));
    if (!asciiDomain) {
        corvo::Log().line(LOG_ERR, IDN_TOASCII_FAILED, domain, idn_strerror(idn_errno));
        return Formatted::refused;
    }
    // The conversion makes dots and slashes out of other characters, so its result is looked at.
    if (!corvo::mail::isPathComponent(asciiDomain.get()))
        return refuseNames();
    return corvo::mail::formatHome(dst, size, asciiDomain.get(), mailname, file)
               ? Formatted::done
               : Formatted::tooLong;
}

// False for a path that is not made of so many names.
bool isMadeOf(std::size_t names, std::string_view path) noexcept {
    for (; names > 1; --names) {
        const std::size_t slash = path.find('/');
        if (slash == std::string_view::npos || !corvo::mail::isPathComponent(path.substr(0, slash)))
            return false;
        path.remove_prefix(slash + 1);
    }
    return corvo::mail::isPathComponent(path);
}

int conclude(Formatted result) noexcept {
    if (result == Formatted::done)
        return 0;
    errno = result == Formatted::tooLong ? ENAMETOOLONG : EINVAL;
    return -1;
}

}  // namespace

int is_mailname_valid(const char* name) noexcept {
    return judge(isMailname, name);
}

int is_domain_name_valid(const char* name) noexcept {
    return judge(isDomainName, name);
}

int is_full_mailname_valid(const char* address) noexcept {
    return judge(isFullMailname, address);
}

int get_mailhome_path(char* dst, std::size_t size, const char* mailname,
                      const char* domain) noexcept {
    const Formatted result = formatPath(dst, size, mailname, domain, "");
    if (result == Formatted::tooLong)
        corvo::Log().line(
            LOG_ERR,
            "Either domain name '%s' or mailname '%s' are too long to store mailname home "
            "path in the provided buffer",
            domain, mailname);
    return conclude(result);
}

int get_dotqmail_path(char* dst, std::size_t size, const char* mailname,
                      const char* domain) noexcept {
    const Formatted result = formatPath(dst, size, mailname, domain, "/.qmail");
    if (result == Formatted::tooLong)
        corvo::Log().line(
            LOG_ERR,
            "Either domain name '%s' or mailname '%s' are too long to store .qmail path in "
            "the provided buffer",
            domain, mailname);
    return conclude(result);
}

namespace corvo::mail {

bool formatHome(char* dst, std::size_t size, const char* domain, const char* mailname,
                const char* file) noexcept {
    const int length =
        std::snprintf(dst, size, "%s/%s/%s%s", vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D), domain,
                      mailname, file);
    if (length < 0 || static_cast<std::size_t>(length) >= size)
        return false;
    strtolower(dst);
    return true;
}

// Joined as texts: a name that begins with "/" must not take the place of the root.
std::string homeOf(std::string_view domain, std::string_view mailname) {
    return mailnamesPrefix().append(relativeHomeOf(domain, mailname));
}

std::string relativeHomeOf(std::string_view domain, std::string_view mailname) {
    return to_lower(std::string(domain)).append("/").append(to_lower(std::string(mailname)));
}

std::string mailnamesPrefix() {
    const std::string_view root = vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D);
    const bool needsSlash = !root.empty() && !root.ends_with('/');
    std::string prefix;
    prefix.reserve(USUAL_HOME);  // a home's path is completed in place
    return prefix.append(root).append(needsSlash ? "/" : "");
}

bool isPathComponent(std::string_view name) noexcept {
    return safe_path::isComponent(name);
}

bool isNamesDeep(std::string_view path, std::size_t names) {
    const std::string prefix = mailnamesPrefix();
    if (!path.starts_with(prefix))
        return path.find('\0') == std::string_view::npos;
    return isMadeOf(names, path.substr(prefix.size()));
}

}  // namespace corvo::mail
