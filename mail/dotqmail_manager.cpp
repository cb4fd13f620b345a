#include "mail/dotqmail_manager.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "mail/dotqmail.h"
#include "mail/mail_paths.h"
#include "utils/system_error.h"

namespace corvo::mail {

namespace {

bool holdsZeroByte(std::string_view text) {
    return text.find('\0') != std::string_view::npos;
}

// False for a path below the mail names root that is not made of two names.
bool isHome(std::string_view path) {
    const std::string prefix = mailnamesPrefix();
    if (!path.starts_with(prefix))
        return !holdsZeroByte(path);
    path.remove_prefix(prefix.size());
    const std::size_t slash = path.find('/');
    return slash != std::string_view::npos && isPathComponent(path.substr(0, slash)) &&
           isPathComponent(path.substr(slash + 1));
}

}  // namespace

DotQMailManager::DotQMailManager(std::filesystem::path home)
    : path(std::move(home)), belongsToMailname(isHome(path.native())) {
    path /= ".qmail";
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
    if (!belongsToMailname)
        fail(EINVAL);
    return path.c_str();
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
    throw SystemError("unable to modify " + path.native(), error);
}

}  // namespace corvo::mail
