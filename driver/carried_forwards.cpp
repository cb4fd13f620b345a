#include "driver/carried_forwards.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "mail/delivery/dotqmail.h"
#include "utils/log.h"
#include "utils/system_error.h"

namespace corvo {

namespace {

// Not so where nothing can be forwarded to the address, whatever the file.
bool isForwardable(const std::string& address) noexcept {
    errno = 0;
    try {
        return !mail::forwardLine(address).empty() || errno == ENOMEM;
    } catch (const std::bad_alloc&) {
        return true;
    }
}

// Adding would list it once more with each run.
bool hold(const mail::Mailname& mailname, const std::string& address) noexcept {
    try {
        return mail::DotQMailManager(mailname).holdRedirect(address);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void tellOfDropping(const mail::DotQMailManager& file, int error) noexcept {
    Log().line(LOG_ERR, "Unable to drop forwards from %s: %s", file.path().c_str(),
               std::strerror(error));
}

}  // namespace

void CarriedForwards::restore(const mail::Mailname& mailname, bool delivers) {
    unnamed_.reset();
    isInOrder_ = true;
    file_.emplace(mailname);
    file_->restore(delivers, unnamed_);
}

void CarriedForwards::name(const mail::Mailname& mailname, const std::string& address) {
    if (place(address) || hold(mailname, address))
        return;
    try {
        mail::DotQMailManager(mailname).addRedirect(address,
                                                    mail::DotQMailManager::Position::anywhere);
    } catch (const SystemError& failure) {
        if (isForwardable(address))
            keep(failure.code());
        throw;
    }
}

bool CarriedForwards::place(const std::string& address) noexcept {
    if (!unnamed_)
        return false;
    // Once one is added at the end, so are all that follow: what is not named goes from between.
    const bool mayPlace = isInOrder_;
    isInOrder_ = false;
    try {
        isInOrder_ = file_->placeRedirect(address, *unnamed_, mayPlace) && mayPlace;
    } catch (const std::bad_alloc&) {
        keep(ENOMEM);
    }
    return isInOrder_;
}

void CarriedForwards::leave() noexcept {
    if (unnamed_ && !(unnamed_->empty() && isInOrder_) && !drop())
        tellOfDropping(*file_, errno);
    unnamed_.reset();
    file_.reset();
}

// Leaves all where they are.
void CarriedForwards::keep(int error) noexcept {
    if (unnamed_ && !unnamed_->empty())
        tellOfDropping(*file_, error);
    unnamed_.reset();
}

bool CarriedForwards::drop() {
    try {
        return file_->dropRedirects(*unnamed_);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

}  // namespace corvo
