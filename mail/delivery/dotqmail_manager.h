// The delivery file of one mail name, for the upper layer.
//
// Methods that fail throw corvo::SystemError with the errno of the call that failed; the functions
// of mail/delivery/dotqmail.h have then logged the reason.

#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "mail/delivery/delivery_restoration.h"

namespace corvo::mail {

class Mailname;

class DotQMailManager {
public:
    /// Where a line goes. Every line is appended, whatever is asked for; the choice is part of the
    /// interface.
    enum class Position { first = 0, last = 1, anywhere = 2 };

    /// The file in a home. Of a mail name that is not sound every method fails with EINVAL and
    /// touches nothing.
    explicit DotQMailManager(const Mailname& mailname);

    /// `place` is the delivery file itself when its last name is ".qmail", else the home that the
    /// file ".qmail" lies in. Below the mail names root a home lies exactly a domain's and a mail
    /// name's directory deep, and only a path of one name more can be the file: any other path
    /// there, as odd names make them, is that of no sound mail name.
    explicit DotQMailManager(const std::filesystem::path& place);

    /// An address that holds a zero byte fails with EINVAL.
    void addRedirect(const std::string& address, Position position);
    void removeRedirect(const std::string& address);
    void enableDelivery();
    void disableDelivery();
    void reset();

    /// restoreDelivery of the file; throws what the other methods throw where it fails.
    void restore(bool delivers, std::optional<ForwardLines>& carriedOver);

    /// placeForward of the address, which is no longer one of `unnamed` afterwards, whatever comes
    /// of it. False, silently, where it cannot be done or `mayPlace` is not set: addRedirect is for
    /// that. Throws std::bad_alloc; the address may then be one of `unnamed` still.
    bool placeRedirect(const std::string& address, ForwardLines& unnamed, bool mayPlace = true);

    /// holdForward of the address. Throws std::bad_alloc.
    bool holdRedirect(const std::string& address) const;

    /// dropForwards from the file.
    bool dropRedirects(const ForwardLines& unnamed);

    /// The delivery file.
    const std::filesystem::path& path() const noexcept { return path_; }

private:
    const char* file() const;
    const char* wholeText(const std::string& address) const;
    void check(int result) const;
    [[noreturn]] void fail(int error) const;

    std::filesystem::path path_;
    bool isSound_;
};

}  // namespace corvo::mail
