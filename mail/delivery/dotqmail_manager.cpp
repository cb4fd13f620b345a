#include "mail/delivery/dotqmail_manager.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "mail/delivery/dotqmail.h"
#include "mail/home/mail_paths.h"
#include "utils/system_error.h"

namespace corvo::mail {

namespace {

constexpr const char* FILE_NAME = ".qmail";

bool holdsZeroByte(std::string_view text) {
    return text.find('\0') != std::string_view::npos;
}

// False for a path that is not made of so many names.
bool isMadeOf(std::size_t names, std::string_view path) {
    for (; names > 1; --names) {
        const std::size_t slash = path.find('/');
        if (slash == std::string_view::npos || !isPathComponent(path.substr(0, slash)))
            return false;
        path.remove_prefix(slash + 1);
    }
    return isPathComponent(path);
}

// False for a path below the mail names root that is not that deep.
bool isSound(std::string_view path, std::size_t depth) {
    const std::string prefix = mailnamesPrefix();
    if (!path.starts_with(prefix))
        return !holdsZeroByte(path);
    return isMadeOf(depth, path.substr(prefix.size()));
}

bool isHome(const std::filesystem::path& path) {
    return isSound(path.native(), 2);
}

bool isDeliveryFile(const std::filesystem::path& path) {
    return path.filename() == FILE_NAME && isSound(path.native(), 3);
}

}  // namespace

DotQMailManager::DotQMailManager(const std::filesystem::path& place)
    : DotQMailManager(isDeliveryFile(place) ? place : place / FILE_NAME,
                      isDeliveryFile(place) || isHome(place)) {}

DotQMailManager::DotQMailManager(std::filesystem::path file, bool isMailnames)
    : path_(std::move(file)), belongsToMailname_(isMailnames) {}

DotQMailManager DotQMailManager::inHome(const std::filesystem::path& home) {
    return {home / FILE_NAME, isHome(home)};
}

void DotQMailManager::addRedirect(const std::string& address, Position /*position*/) {
    check(dotqmail_add_forward(file(), wholeText(address)));
}

void DotQMailManager::removeRedirect(const std::string& address) {
    check(dotqmail_remove_forward(file(), wholeText(address)));
}

void DotQMailManager::enableDelivery() {
    check(dotqmail_add_delivery(file()));
}

void DotQMailManager::disableDelivery() {
    check(dotqmail_remove_delivery(file()));
}

void DotQMailManager::reset() {
    check(dotqmail_reset(file()));
}

const char* DotQMailManager::file() const {
    if (!belongsToMailname_)
        fail(EINVAL);
    return path_.c_str();
}

const char* DotQMailManager::wholeText(const std::string& address) const {
    if (holdsZeroByte(address))
        fail(EINVAL);
    return address.c_str();
}

void DotQMailManager::check(int result) const {
    if (result != 0)
        fail(errno);
}

void DotQMailManager::fail(int error) const {
    throw SystemError("unable to modify " + path_.native(), error);
}

}  // namespace corvo::mail
