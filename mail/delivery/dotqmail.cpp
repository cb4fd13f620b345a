#include "mail/delivery/dotqmail.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/text_file.h"
#include "mail/home/mail_paths.h"
#include "utils/accounts.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/idn.h"
#include "utils/line_file.h"
#include "utils/log.h"

namespace {

// Every line that ever delivered into a mailbox of this system.
constexpr const char* KNOWN_DELIVERY_LINES[] = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
    nullptr,
};

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

int installDefaultDelivery(const char* path) noexcept {
    if (detectImapPop3Server() == DELIVERY_AGENT_UNKNOWN)
        return -1;
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
        corvo_log(3, "idn_email_toascii(%s) failed: %s", address, idn_strerror(idn_errno));
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
    if (installDefaultDelivery(path) == 0)
        return 0;
    const corvo::ErrnoGuard keepErrno;
    corvo_log(3, "Unable to add delivery string to '%s'", path);
    return -1;
}

int dotqmail_remove_delivery_strings(const char* path) noexcept {
    if (file_strings(path, KNOWN_DELIVERY_LINES, FILE_STRINGS_REMOVE, FILE_STRINGS_APPEND) == 0)
        return 0;
    const corvo::ErrnoGuard keepErrno;
    corvo_log(4, "Unable to remove old delivery strings from '%s'", path);
    return -1;
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
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "asprintf(\"&%%s\", %s) failed: %s", converted.get(), std::strerror(errno));
        return -1;
    }
    // A file from which nothing can be removed, a missing one for instance, may still be added to.
    (void)removeLine(path, line.get());
    if (addLine(path, line.get()) != 0) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to add string to %s file.", path);
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
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "asprintf(\"&%%s\", %s): %s", converted.get(), std::strerror(errno));
        return -1;
    }
    if (removeLine(path, line.get()) != 0) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to remove string from %s file.", path);
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
