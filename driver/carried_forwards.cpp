#include "driver/carried_forwards.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "utils/log.h"

namespace corvo {

void CarriedForwards::restore(const mail::Mailname& mailname, bool delivers) {
    unnamed_.reset();
    file_.emplace(mailname);
    file_->restore(delivers, unnamed_);
}

bool CarriedForwards::place(const std::string& address) {
    return unnamed_ && file_->placeRedirect(address, *unnamed_);
}

void CarriedForwards::leave() noexcept {
    if (unnamed_ && !unnamed_->empty() && !drop())
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
