// The validation of mail names, domain names and addresses against regular expressions.

#include <regex.h>

#include "fuzz/support.h"
#include "mail/home/mail_paths.h"

namespace {

using corvo::fuzz::require;

// A regular expression and the most bytes that it may match.
class Pattern {
public:
    Pattern(const char* text, std::size_t longest) : longest_(longest) {
        corvo::fuzz::must(::regcomp(&pattern_, text, REG_EXTENDED | REG_NOSUB) == 0, "regcomp");
    }
    ~Pattern() { ::regfree(&pattern_); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    int matches(const std::string& text) const {
        return text.size() <= longest_ && ::regexec(&pattern_, text.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t pattern_ = {};
    std::size_t longest_;
};

int isMailname(const std::string& text) {
    static const Pattern pattern("^[A-Za-z0-9_&+'-]+(\\.[A-Za-z0-9_&+'-]+)*$", 245);
    return pattern.matches(text);
}

int isDomainName(const std::string& text) {
    static const Pattern pattern(
        "^([A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?\\.)*[A-Za-z0-9][A-Za-z0-9-]{0,62}$", 255);
    return pattern.matches(text);
}

int isAddress(const std::string& text) {
    const std::size_t at = text.find('@');
    return at != std::string::npos && isMailname(text.substr(0, at)) != 0 &&
           isDomainName(text.substr(at + 1)) != 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    require(is_mailname_valid(text.c_str()) == isMailname(text), "mail names are told apart");
    require(is_domain_name_valid(text.c_str()) == isDomainName(text), "domains are told apart");
    require(is_full_mailname_valid(text.c_str()) == isAddress(text), "addresses are told apart");
    return 0;
}
