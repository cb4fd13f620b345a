// A mail name of the panel.

#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvo::mail {

/// A mail name in its domain, as they come from a database. Made where they enter this library;
/// everything behind takes both as one, and nobody looks at them a second time.
class Mailname {
public:
    Mailname(std::string domain, std::string name);

    /// As they came.
    const std::string& domain() const noexcept { return domain_; }
    const std::string& name() const noexcept { return name_; }

    /// For plain functions, which end a text at its first zero byte and would take one that holds
    /// more for another's: such a text is empty here, which all of them refuse.
    const char* plainDomain() const noexcept;
    const char* plainName() const noexcept;

    /// Whether both can be names of directories; the home of one that is not sound is no place to
    /// work in.
    bool isSound() const noexcept { return isSound_; }

    /// homeOf() its names.
    const std::filesystem::path& home() const noexcept { return home_; }

private:
    std::string domain_;
    std::string name_;
    bool isSound_;
    std::filesystem::path home_;
};

}  // namespace corvo::mail
