#include "tests/equality/description.h"

#include <algorithm>

#include "tests/faults/disturb/hostile_values.h"
#include "tests/faults/disturb/row_generator.h"

namespace corvo::equality {

namespace {

using faults::below;
using faults::insertStatement;

constexpr std::size_t MOST_DOMAINS = 3;
constexpr std::size_t MOST_MAILNAMES = 4;
constexpr std::size_t MOST_FORWARDS = 6;

// Each kind of id has a range of its own.
constexpr std::size_t PARAMETERS_ID = 1000;
constexpr std::size_t LIMITS_ID = 2000;
constexpr std::size_t MAIL_ID = 3000;

const std::string BOOKS = "b\xC3\xBC" + std::string("cher.example");

const std::vector<std::string> DOMAINS = {
    "one.example", "Two.Example", "xn--bcher-kva.example", "three.example", "four.example",
};
const std::vector<std::string> ODD_DOMAINS = {
    BOOKS, "under_score.example", "with blank.example", "", "ends.in.dot.example.",
};
const std::vector<std::string> NAMES = {
    "anna", "bruno", "Carla", "dora.e", "emil+tag", "fritz-g_h", "h&i", "o'neil",
};
const std::vector<std::string> ODD_NAMES = {
    "two words", "..dots", "x..y", "", "m\xC3\xBCller", "a/b", std::string(246, 'n'), "-", "ends.",
};
const std::vector<std::string> ADDRESSES = {
    "a@away.example", "b@away.example",   "c@away.example",
    "d@away.example", "anna@one.example", "Upper@Away.Example",
    "e@away.example", "s+p@away.example", "\xC3\xBC@" + BOOKS,
};
const std::vector<std::string> ODD_ADDRESSES = {
    "nowhere",         "",       "two@lines.example\n&more@lines.example", "x@-a.example", "@",
    "y@away..example", "| true", std::string("zero\0@away.example", 18),
};
const std::vector<long long> QUOTAS = {-1, -1, 0, 1, 5000, 10'485'760, -7};

std::vector<std::string> randomForwards(std::mt19937_64& random) {
    std::vector<std::string> forwards;
    for (std::size_t left = below(MOST_FORWARDS, random); left > 0; --left)
        forwards.push_back(pick(chance(5, random) ? ODD_ADDRESSES : ADDRESSES, random));
    return forwards;
}

Mailname randomMailname(const std::string& domain, std::mt19937_64& random) {
    Mailname name;
    name.domain = domain;
    name.name = pick(chance(6, random) ? ODD_NAMES : NAMES, random);
    name.hasPostbox = !chance(25, random);
    name.isDelivered = !chance(12, random);
    name.isGroup = chance(50, random);
    name.quota = pick(QUOTAS, random);
    if (name.isGroup || chance(20, random))
        name.forwards = randomForwards(random);
    return name;
}

// Another row for the home of a mail name, perhaps in other letters.
Mailname twinOf(const Mailname& name, std::mt19937_64& random) {
    Mailname twin = randomMailname(name.domain, random);
    twin.name = name.name;
    if (chance(50, random))
        std::transform(twin.name.begin(), twin.name.end(), twin.name.begin(),
                       [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return twin;
}

std::string inLowerCase(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

std::string flag(bool value) {
    return value ? "true" : "false";
}

std::string domainRows(const std::string& name, std::size_t number, long long limit) {
    const std::string id = std::to_string(number + 1);
    const std::string parameters = std::to_string(PARAMETERS_ID + number);
    const std::string limits = std::to_string(LIMITS_ID + number);
    return insertStatement({"domains", {{"id", id}, {"name", name}}}) +
           insertStatement({"DomainServices",
                            {{"dom_id", id}, {"type", "mail"}, {"parameters_id", parameters}}}) +
           insertStatement({"Parameters",
                            {{"id", parameters}, {"parameter", "nonexist_mail"}, {"value", ""}}}) +
           insertStatement(
               {"Subscriptions", {{"id", id}, {"object_type", "domain"}, {"object_id", id}}}) +
           insertStatement({"SubscriptionProperties",
                            {{"subscription_id", id}, {"name", "limitsId"}, {"value", limits}}}) +
           insertStatement(
               {"Limits",
                {{"id", limits}, {"limit_name", "mbox_quota"}, {"value", std::to_string(limit)}}});
}

std::string mailnameRows(const Mailname& name, std::size_t domainNumber, std::size_t number) {
    const std::string id = std::to_string(MAIL_ID + number);
    std::string script = insertStatement({"mail",
                                          {{"id", id},
                                           {"mail_name", name.name},
                                           {"dom_id", std::to_string(domainNumber + 1)},
                                           {"postbox", flag(name.hasPostbox)},
                                           {"delivery", flag(name.isDelivered)},
                                           {"mail_group", flag(name.isGroup)},
                                           {"mbox_quota", std::to_string(name.quota)}}});
    for (const std::string& forward : name.forwards)
        script += insertStatement({"mail_redir", {{"mn_id", id}, {"address", forward}}});
    return script;
}

std::string settingRow(const std::string& name, const std::string& value) {
    return insertStatement({"misc", {{"param", name}, {"val", value}}});
}

}  // namespace

bool chance(int percent, std::mt19937_64& random) {
    return below(100, random) < static_cast<std::size_t>(percent);
}

std::string Mailname::home() const {
    return inLowerCase(domain) + "/" + inLowerCase(name);
}

Description randomDescription(std::mt19937_64& random) {
    Description description;
    const std::size_t domains = 1 + below(MOST_DOMAINS, random);
    for (std::size_t i = 0; i < domains; ++i) {
        const std::string domain = pick(chance(5, random) ? ODD_DOMAINS : DOMAINS, random);
        description.domains.push_back(domain);
        description.limits.push_back(pick(QUOTAS, random));
        for (std::size_t left = below(MOST_MAILNAMES + 1, random); left > 0; --left) {
            description.mailnames.push_back(randomMailname(domain, random));
            if (chance(8, random))
                description.mailnames.push_back(twinOf(description.mailnames.back(), random));
        }
    }
    const std::vector<std::string> words = {"true", "true", "false", "perhaps"};
    description.rejects = pick(words, random);
    description.permanently = pick(words, random);
    return description;
}

Panel::Panel() {
    database_.execute("ALTER TABLE mail DROP KEY address, MODIFY mail_name varchar(300)");
}

void Panel::load(const Description& description) {
    setForwardTable(true);
    std::string script;
    for (const char* table : {"domains", "DomainServices", "Parameters", "Subscriptions",
                              "SubscriptionProperties", "Limits", "mail", "mail_redir", "misc"})
        script += std::string("DELETE FROM ") + table + ";";
    std::size_t number = 0;
    for (std::size_t domain = 0; domain < description.domains.size(); ++domain) {
        const std::string& name = description.domains[domain];
        script += domainRows(name, domain, description.limits[domain]);
        // A domain that stands there twice has its mail names once, where it comes first.
        const auto first = std::find(description.domains.begin(), description.domains.end(), name);
        for (const Mailname& mailname : description.mailnames)
            if (mailname.domain == name &&
                first == description.domains.begin() + static_cast<std::ptrdiff_t>(domain))
                script += mailnameRows(mailname, domain, number++);
    }
    script += settingRow("reject_mail_when_overquota", description.rejects) +
              settingRow("reject_mail_when_overquota_with_permfail", description.permanently);
    database_.execute(script);
}

void Panel::setForwardTable(bool isThere) {
    if (isThere == hasForwardTable_)
        return;
    database_.execute(isThere ? "RENAME TABLE hidden TO mail_redir"
                              : "RENAME TABLE mail_redir TO hidden");
    hasForwardTable_ = isThere;
}

}  // namespace corvo::equality
