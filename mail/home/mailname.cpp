#include "mail/home/mailname.h"

#include <utility>

#include "mail/home/mail_paths.h"

namespace corvo::mail {

namespace {

const char* plain(const std::string& text) noexcept {
    return text.find('\0') == std::string::npos ? text.c_str() : "";
}

}  // namespace

Mailname::Mailname(std::string domain, std::string name)
    : domain_(std::move(domain)),
      name_(std::move(name)),
      isSound_(isPathComponent(domain_) && isPathComponent(name_)),
      home_(homeOf(domain_, name_)) {}

const char* Mailname::plainDomain() const noexcept {
    return plain(domain_);
}

const char* Mailname::plainName() const noexcept {
    return plain(name_);
}

}  // namespace corvo::mail
