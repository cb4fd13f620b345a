#include "audit/options.h"

#include <fnmatch.h>

#include <algorithm>

namespace corvo::audit {

namespace {

bool matchesAny(const std::vector<std::string>& patterns, const std::string& text) {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
        return ::fnmatch(pattern.c_str(), text.c_str(), FNM_CASEFOLD) == 0;
    });
}

}  // namespace

bool Scope::includes(const std::string& domain) const {
    return isAll() || matchesAny(domains, domain);
}

bool Scope::includes(const std::string& domain, const std::string& mailname) const {
    return includes(domain) || matchesAny(mailboxes, mailname + "@" + domain);
}

}  // namespace corvo::audit
