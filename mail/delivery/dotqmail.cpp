#include "mail/delivery/dotqmail.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/delivery_file.h"
#include "mail/delivery/delivery_lines.h"
#include "mail/delivery/delivery_reports.h"
#include "mail/delivery/text_file.h"
#include "mail/home/mail_paths.h"
#include "utils/accounts.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/idn.h"
#include "utils/line_file.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

using corvo::mail::changeDelivery;
using corvo::mail::DefaultDelivery;
using corvo::mail::isKnownDeliveryLine;
using corvo::mail::Lines;

constexpr mode_t DOTQMAIL_MODE = 0600;
constexpr int IDN_CONTAINS_NON_LDH = 3;

int giveToPopuser(const char* path) noexcept {
    return file_set_user_mode(path, POPUSER, DOTQMAIL_MODE);
}

int addLine(const char* path, const char* line) noexcept {
    return file_append_line(path, line);
}

int removeLine(const char* path, const char* line) noexcept {
    return file_str(path, line, FILE_STRINGS_REMOVE, FILE_STRINGS_APPEND);
}

// changeDelivery for plain functions: whether it was done; silent in any case.
template <typename Edit>
bool changeInOneStep(const char* path, Edit edit) noexcept {
    try {
        return changeDelivery(path, edit);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool isThere(const char* path) noexcept {
    struct stat seen = {};
    return corvo::safe_path::status(AT_FDCWD, path, seen) == 0;
}

// Puts the default delivery line in place of the known ones, in an existing file.
bool exchangeDeliveryLines(const char* path) noexcept {
    const DefaultDelivery found = corvo::mail::readDefaultDelivery();
    return found.line && isThere(path) && changeInOneStep(path, [&](Lines& lines) {
               std::erase_if(lines, isKnownDeliveryLine);
               lines.emplace_back(found.line.get());
           });
}

// Makes a line the last one, and the only one of its kind.
bool moveLast(const char* path, std::string_view line) noexcept {
    return changeInOneStep(path, [=](Lines& lines) { corvo::mail::putLast(lines, line); });
}

int installDefaultDelivery(const char* path) noexcept {
    if (detectImapPop3Server() == DELIVERY_AGENT_UNKNOWN)
        return -1;
    if (exchangeDeliveryLines(path))
        return 0;
    if (dotqmail_remove_delivery_strings(path) != 0)
        return -1;
    char* line = nullptr;
    if (get_default_delivery_string(&line) != 0)
        return -1;
    const corvo::UniqueCString owned(line);
    if (addLine(path, line) != 0)
        return -1;
    return giveToPopuser(path);
}

// idn_email_toascii, which leaves no reason for an address without domain, and no conversion of
// what would put further lines into the file.
char* convertToOneLine(const char* address) noexcept {
    if (std::strchr(address, '@') != nullptr && std::strpbrk(address, "\r\n") == nullptr)
        return idn_email_toascii(address);
    idn_errno = IDN_CONTAINS_NON_LDH;
    return nullptr;
}

// The address as it goes into the file, or null after logging, with errno.
corvo::UniqueCString forwardAddress(const char* address) noexcept {
    corvo::UniqueCString converted(convertToOneLine(address));
    if (!converted) {
        corvo::Log().line(LOG_ERR, "idn_email_toascii(%s) failed: %s", address,
                          idn_strerror(idn_errno));
        errno = EINVAL;
    }
    return converted;
}

// "&", the address and `end`; null with errno when there is no memory.
corvo::UniqueCString formatForward(const char* address, const char* end) noexcept {
    char* line = nullptr;
    if (::asprintf(&line, "&%s%s", address, end) < 0)
        line = nullptr;
    return corvo::UniqueCString(line);
}

// Runs `modification` on the delivery file of a mail name.
template <typename Modification>
int withDotqmail(const char* mailname, const char* domain, Modification modification) noexcept {
    char path[PATH_MAX];
    if (get_dotqmail_path(path, sizeof path, mailname, domain) != 0)
        return -1;
    return modification(path);
}

}  // namespace

int dotqmail_add_delivery(const char* path) noexcept {
    return installDefaultDelivery(path) == 0 ? 0 : corvo::mail::reportNotDelivering(path);
}

int dotqmail_remove_delivery_strings(const char* path) noexcept {
    const int failed = file_strings(path, corvo::mail::KNOWN_DELIVERY_LINES, FILE_STRINGS_REMOVE,
                                    FILE_STRINGS_APPEND);
    return failed == 0 ? 0 : corvo::mail::reportNotCleared(path);
}

int dotqmail_remove_delivery(const char* path) noexcept {
    if (dotqmail_remove_delivery_strings(path) != 0)
        return -1;
    return giveToPopuser(path);
}

int dotqmail_reset(const char* path) noexcept {
    if (write_text_file(path, "| true\n") != 0)
        return -1;
    return giveToPopuser(path);
}

int dotqmail_add_forward(const char* path, const char* address) noexcept {
    const corvo::UniqueCString converted = forwardAddress(address);
    if (!converted)
        return -1;
    const corvo::UniqueCString line = formatForward(converted.get(), "");
    if (!line) {
        corvo::Log().line(LOG_ERR, "asprintf(\"&%%s\", %s) failed: %s", converted.get(),
                          std::strerror(errno));
        return -1;
    }
    if (moveLast(path, line.get()))
        return 0;
    // A file from which nothing can be removed may still be added to.
    (void)removeLine(path, line.get());
    if (addLine(path, line.get()) != 0) {
        corvo::Log().line(LOG_ERR, "Unable to add string to %s file.", path);
        return -1;
    }
    return giveToPopuser(path);
}

int dotqmail_remove_forward(const char* path, const char* address) noexcept {
    const corvo::UniqueCString converted = forwardAddress(address);
    if (!converted)
        return -1;
    const corvo::UniqueCString line = formatForward(converted.get(), "\n");
    if (!line) {
        corvo::Log().line(LOG_ERR, "asprintf(\"&%%s\", %s): %s", converted.get(),
                          std::strerror(errno));
        return -1;
    }
    if (removeLine(path, line.get()) != 0) {
        corvo::Log().line(LOG_ERR, "Unable to remove string from %s file.", path);
        return -1;
    }
    return giveToPopuser(path);
}

int add_mailname_delivery(const char* mailname, const char* domain) noexcept {
    return withDotqmail(mailname, domain, dotqmail_add_delivery);
}

int remove_mailname_delivery(const char* mailname, const char* domain) noexcept {
    return withDotqmail(mailname, domain, dotqmail_remove_delivery);
}

int add_mn_forward(const char* mailname, const char* domain, const char* address) noexcept {
    return withDotqmail(mailname, domain, [address](const char* path) {
        return dotqmail_add_forward(path, address);
    });
}

int rm_mn_forward(const char* mailname, const char* domain, const char* address) noexcept {
    return withDotqmail(mailname, domain, [address](const char* path) {
        return dotqmail_remove_forward(path, address);
    });
}

namespace corvo::mail {

std::string forwardLine(const std::string& address) {
    if (address.find('\0') != std::string::npos)
        return {};
    const UniqueCString converted(convertToOneLine(address.c_str()));
    return converted ? std::string("&").append(converted.get()) : std::string();
}

}  // namespace corvo::mail
