// Forwards that are kept until it is known who still wants them.

#pragma once

#include <optional>
#include <string>

#include "mail/delivery/dotqmail_manager.h"
#include "mail/home/mailname.h"

namespace corvo {

/// The forwards that the delivery file of one mail name has from before this run. They stay in it
/// until the walk has left the mail name: mail goes on being forwarded while the panel names them
/// one by one. What it has not named by then is dropped.
class CarriedForwards {
public:
    /// Restores the delivery file of a mail name and is about its forwards from now on. Throws what
    /// DotQMailManager::restore throws.
    void restore(const mail::Mailname& mailname, bool delivers);

    /// An address that the panel names: placed, or added where that is not possible; in a file that
    /// has it and cannot be replaced it stays where it is. Throws what DotQMailManager::addRedirect
    /// throws. Unless it is the address that is at fault, nothing is dropped then, which is told in
    /// one line: the group ends here, and nobody says any more who else is wanted.
    void name(const mail::Mailname& mailname, const std::string& address);

    /// Puts an address behind those named before and in front of the others. False where that is
    /// not possible; the address is to be added then, and counts as named.
    bool place(const std::string& address) noexcept;

    /// Drops what was not named, and is about no mail name any more. What cannot be dropped stays,
    /// which is told in one line.
    void leave() noexcept;

private:
    bool drop();
    void keep(int error) noexcept;

    std::optional<mail::DotQMailManager> file_;
    bool isInOrder_ = true;                      // none had to be added at the end
    std::optional<mail::ForwardLines> unnamed_;  // none where the file was not restored
};

}  // namespace corvo
