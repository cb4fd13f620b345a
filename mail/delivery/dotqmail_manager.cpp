#include "mail/delivery/dotqmail_manager.h"

#include <cerrno>
#include <new>
#include <string_view>

#include "mail/delivery/dotqmail.h"
#include "mail/home/mail_paths.h"
#include "mail/home/mailname.h"
#include "utils/system_error.h"

namespace corvo::mail {

namespace {

constexpr const char* FILE_NAME = ".qmail";

bool isDeliveryFile(const std::filesystem::path& path) {
    return path.filename() == FILE_NAME && isNamesDeep(path.native(), 3);
}

}  // namespace

DotQMailManager::DotQMailManager(const Mailname& mailname)
    : path_(mailname.home() / FILE_NAME), isSound_(mailname.isSound()) {}

DotQMailManager::DotQMailManager(const std::filesystem::path& place)
    : path_(isDeliveryFile(place) ? place : place / FILE_NAME),
      isSound_(isDeliveryFile(place) || isNamesDeep(place.native(), 2)) {}

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

void DotQMailManager::restore(bool delivers, std::optional<ForwardLines>& carriedOver) {
    check(restoreDelivery(file(), delivers, carriedOver));
}

bool DotQMailManager::placeRedirect(const std::string& address, ForwardLines& unnamed,
                                    bool mayPlace) {
    errno = 0;
    const std::string line = forwardLine(address);
    if (line.empty() && errno == ENOMEM)
        throw std::bad_alloc();
    unnamed.erase(line);
    return mayPlace && isSound_ && !line.empty() && placeForward(path_.c_str(), line, unnamed);
}

bool DotQMailManager::holdRedirect(const std::string& address) const {
    const std::string line = forwardLine(address);
    return isSound_ && !line.empty() && holdForward(path_.c_str(), line);
}

bool DotQMailManager::dropRedirects(const ForwardLines& unnamed) {
    return dropForwards(path_.c_str(), unnamed);
}

const char* DotQMailManager::file() const {
    if (!isSound_)
        fail(EINVAL);
    return path_.c_str();
}

const char* DotQMailManager::wholeText(const std::string& address) const {
    if (address.find('\0') != std::string::npos)
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
