#include "audit/options.h"

#include <fnmatch.h>

#include <algorithm>

namespace corvo::audit {

namespace {

bool matches(const std::string& pattern, const std::string& text) {
    return ::fnmatch(pattern.c_str(), text.c_str(), FNM_CASEFOLD) == 0;
}

// The last "@" is the one between the halves: a name may have others.
bool matchesDomain(const std::string& mailboxes, const std::string& domain) {
    return matches(mailboxes.substr(mailboxes.rfind('@') + 1), domain);
}

bool matchesName(const std::string& mailboxes, const std::string& mailname) {
    return matches(mailboxes.substr(0, mailboxes.rfind('@')), mailname);
}

}  // namespace

bool Scope::includes(const std::string& domain) const {
    return isAll() || std::any_of(domains.begin(), domains.end(), [&](const std::string& pattern) {
               return matches(pattern, domain);
           });
}

bool Scope::reaches(const std::string& domain) const {
    return includes(domain) ||
           std::any_of(mailboxes.begin(), mailboxes.end(),
                       [&](const std::string& pattern) { return matchesDomain(pattern, domain); });
}

bool Scope::includes(const std::string& domain, const std::string& mailname) const {
    return includes(domain) ||
           std::any_of(mailboxes.begin(), mailboxes.end(), [&](const std::string& pattern) {
               return matchesDomain(pattern, domain) && matchesName(pattern, mailname);
           });
}

}  // namespace corvo::audit
