#include "mail/delivery/delivery_file.h"

#include <fcntl.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>

#include "utils/accounts.h"
#include "utils/files.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

constexpr mode_t DELIVERY_MODE = 0600;

// Reads to the end: one byte more than the file had tells whether it grew meanwhile.
bool readToTheEnd(int file, std::size_t expected, std::string& text) {
    for (std::size_t size = expected + 1; size <= LARGEST_DELIVERY_FILE + 1; size *= 2) {
        const std::size_t old = text.size();
        text.resize(size);
        const ssize_t got = read_fully(file, text.data() + old, size - old);
        if (got < 0)
            return false;
        text.resize(old + static_cast<std::size_t>(got));
        if (text.size() < size)
            return true;
    }
    errno = EFBIG;
    return false;
}

}  // namespace

const char* const KNOWN_DELIVERY_LINES[] = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
    nullptr,
};

Lines linesOf(std::string_view text) {
    Lines lines;
    while (!text.empty()) {
        const std::size_t length = text.find('\n');
        lines.push_back(text.substr(0, length));
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    }
    return lines;
}

std::string textOf(const Lines& lines) {
    std::string text;
    for (const std::string_view line : lines)
        text.append(line).append("\n");
    return text;
}

bool isForward(std::string_view line) noexcept {
    return line.starts_with('&');
}

bool isKnownDeliveryLine(std::string_view line) noexcept {
    for (const char* const* known = KNOWN_DELIVERY_LINES; *known != nullptr; ++known)
        if (line == *known)
            return true;
    return false;
}

bool readDelivery(const line_rewrite::Target& file, DeliveryContents& contents) {
    const UniqueFd opened =
        safe_path::openFile(file.base(), file.name(), O_RDONLY, 0, contents.seen);
    if (!opened)
        return errno == ENOENT;
    contents.exists = true;
    if (safe_path::isForeignHardLink(file.base(), file.name(), contents.seen))
        errno = EPERM;
    else if (contents.seen.st_size > LARGEST_DELIVERY_FILE)
        errno = EFBIG;
    else
        return readToTheEnd(opened.get(), static_cast<std::size_t>(contents.seen.st_size),
                            contents.text);
    return false;
}

bool findDeliveryOwnership(Ownership& ownership) noexcept {
    errno = 0;
    const struct passwd* const account = ::getpwnam(POPUSER);
    if (account == nullptr) {
        if (errno == 0)
            errno = ENOENT;
        return false;
    }
    ownership = {account->pw_uid, account->pw_gid, DELIVERY_MODE};
    return true;
}

Differences deliveryDifferences(const DeliveryContents& contents, std::string_view wanted,
                                const Ownership& ownership) noexcept {
    if (!contents.exists)
        return {.missing = true};
    Differences differences = fileDifferences(contents.seen, ownership);
    differences.contents = contents.text != wanted;
    return differences;
}

Replaced replaceDelivery(const line_rewrite::Target& file, std::string_view text,
                         const Ownership& ownership) noexcept {
    line_rewrite::Replacement fresh(file);
    if (!fresh.create())
        return Replaced::notOpened;
    const bool isInPlace =
        std::fwrite(text.data(), 1, text.size(), fresh.stream()) == text.size() &&
        safe_path::setOwnerAndMode(fresh.file(), ownership.uid, ownership.gid, ownership.mode,
                                   nullptr) == 0 &&
        fresh.close() == 0 && fresh.moveIntoPlace() == 0;
    return isInPlace ? Replaced::whole : Replaced::notWritten;
}

}  // namespace corvo::mail
