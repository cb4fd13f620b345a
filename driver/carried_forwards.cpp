#include "driver/carried_forwards.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "utils/log.h"

namespace corvo {

void CarriedForwards::restore(const mail::Mailname& mailname, bool delivers) {
    unnamed_.reset();
    isInOrder_ = true;
    file_.emplace(mailname);
    file_->restore(delivers, unnamed_);
}

bool CarriedForwards::place(const std::string& address) {
    if (!unnamed_)
        return false;
    // Once one is added at the end, so are all that follow: what is not named goes from between.
    const bool mayPlace = isInOrder_;
    isInOrder_ = file_->placeRedirect(address, *unnamed_, mayPlace) && mayPlace;
    return isInOrder_;
}

void CarriedForwards::leave() noexcept {
    if (unnamed_ && !(unnamed_->empty() && isInOrder_) && !drop())
        Log().line(LOG_ERR, "Unable to drop forwards from %s: %s", file_->path().c_str(),
                   std::strerror(errno));
    unnamed_.reset();
    file_.reset();
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
