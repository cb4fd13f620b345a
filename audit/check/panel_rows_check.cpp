#include <climits>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/panel_query.h"
#include "audit/check/subject.h"
#include "mail/delivery/dotqmail.h"
#include "mail/home/mail_paths.h"
#include "restore/numbers.h"
#include "utils/idn.h"

namespace corvo::audit {

namespace {

// Rows that a statement finds and that are then judged one by one, as the program that restores
// would take them: the statement alone cannot, and leaves no row out that may be at fault.
struct RowCheck {
    const char* subject;
    const char* allRight;  // what is said when no row is at fault
    std::string statement;
    bool (*isAtFault)(const Row& row);
    Verdict verdict;
    std::string (*describe)(const Row& row);
    const char* advice;
};

// The columns that statements here give: the names in the spelling that homes have.
constexpr const char* DOMAIN = "LOWER(d.name) AS domain";
constexpr const char* ADDRESS = "LOWER(d.name) AS domain, LOWER(m.mail_name) AS name";

std::string ofDomains(const std::string& columns, const std::string& rest) {
    return "SELECT " + columns + WALKED_DOMAINS + rest;
}

std::string ofMailnames(const std::string& columns, const std::string& rest) {
    return ofDomains(columns, WALKED_MAILNAMES + rest);
}

// Whatever may be no number of 64 bits. The expression lets a line end at the end pass.
std::string mayBeNoNumber(const std::string& column) {
    return "(" + column + " IS NULL OR " + column + " NOT REGEXP '^[-+]?[0-9]{1,18}$' OR LOCATE(" +
           "CHAR(10), " + column + ") > 0)";
}

// Whatever may be no name of a directory.
std::string mayBeNoComponent(const std::string& column) {
    return "(" + column + " IS NULL OR " + column + " IN ('', '.', '..') OR " + column +
           " LIKE '%/%' OR LOCATE(CHAR(0), " + column + ") > 0 OR LENGTH(CONVERT(" + column +
           " USING utf8)) > " + std::to_string(NAME_MAX) + ")";
}

// Bytes that are compared as they reach the program: a collation takes more for equal.
std::string asBytes(const std::string& column) {
    return "CAST(CONVERT(LOWER(" + column + ") USING utf8) AS BINARY)";
}

// Characters that do not reach the program come as this one.
std::string mayHaveLost(const std::string& column) {
    return "CONVERT(" + column + " USING utf8) LIKE '%?%'";
}

std::string domainOf(const Row& row) {
    return row["domain"].value;
}

std::string addressOf(const Row& row) {
    return row["name"].value + "@" + row["domain"].value;
}

// A value that is no number, as it stands in the database.
std::string valueOf(const Row& row) {
    const mysql::Field& value = row["value"];
    return value.null ? "NULL" : "'" + value.value + "'";
}

bool always(const Row&) {
    return true;
}

bool isNoNumber(const Row& row) {
    return !mail::restore::numberIn<long long>(row["value"].value);
}

bool isNoDirectoryName(const std::string& name) {
    return !mail::isPathComponent(name) || name.size() > NAME_MAX;
}

// Whether a redirect makes the stage fail that should have made a forward of it.
bool canBeNoForward(const Row& row) {
    try {
        const std::string address = idn::emailToAscii(row["value"].value);
        return address.find('\0') != std::string::npos || mail::forwardLine(address).empty();
    } catch (const idn::IdnaError&) {
        return true;
    }
}

const RowCheck ROW_CHECKS[] = {
    {"domain statuses", "all are numbers",
     ofDomains(std::string(DOMAIN) + ", s.status AS value", "WHERE " + mayBeNoNumber("s.status")),
     isNoNumber, Verdict::problem,
     [](const Row& row) {
         return domainOf(row) + ": " + valueOf(row) +
                " is no number, and ends the run before this domain and all after it";
     },
     "set the status of its mail service to 0, or to the reason why it is off"},

    {"domains passed over", "none",
     std::string("SELECT ") + DOMAIN +
         ", COUNT(m.id) AS names FROM domains d "
         "JOIN DomainServices s ON s.dom_id=d.id AND s.type='mail' "
         "LEFT JOIN Parameters p ON p.id=s.parameters_id AND p.parameter='nonexist_mail' "
         "LEFT JOIN mail m ON m.dom_id=d.id WHERE p.id IS NULL GROUP BY d.id, d.name",
     always, Verdict::warning,
     [](const Row& row) {
         return domainOf(row) +
                ": its mail service lacks nonexist_mail; mail names: " + row["names"].value;
     },
     "set in the panel what happens to mail for unknown recipients"},

    {"mail names without mail service", "none",
     std::string("SELECT m.dom_id AS id, ") + DOMAIN +
         ", COUNT(*) AS names FROM mail m LEFT JOIN domains d ON d.id=m.dom_id "
         "LEFT JOIN DomainServices s ON s.dom_id=d.id AND s.type='mail' "
         "WHERE s.dom_id IS NULL GROUP BY m.dom_id, d.name",
     always, Verdict::warning,
     [](const Row& row) {
         return (row["domain"].null ? "no domain has the id " + row["id"].value : domainOf(row)) +
                "; mail names: " + row["names"].value;
     },
     "nothing, unless they should have mail: then switch the service on in the panel"},

    {"spellings of domains", "each domain has one",
     ofDomains(std::string("MAX(LOWER(d.name)) AS domain, COUNT(*) AS spellings"),
               "GROUP BY " + asBytes("d.name") + " HAVING COUNT(*) > 1"),
     always, Verdict::warning,
     [](const Row& row) {
         return domainOf(row) + ": one directory for " + row["spellings"].value + " domains";
     },
     "rename or delete all but one in the panel"},

    {"spellings of mail names", "each mail name has one",
     ofMailnames(
         "MAX(LOWER(d.name)) AS domain, MAX(LOWER(m.mail_name)) AS name, "
         "COUNT(*) AS spellings",
         "GROUP BY " + asBytes("d.name") + ", " + asBytes("m.mail_name") + " HAVING COUNT(*) > 1"),
     always, Verdict::warning,
     [](const Row& row) {
         return addressOf(row) + ": one home for " + row["spellings"].value +
                " mail names, of which the last one read counts";
     },
     "rename or delete all but one in the panel"},

    {"names of domains", "all are names of directories",
     ofDomains(DOMAIN, "WHERE " + mayBeNoComponent("d.name")),
     [](const Row& row) { return isNoDirectoryName(row["domain"].value); }, Verdict::warning,
     [](const Row& row) { return "'" + domainOf(row) + "' is no name of a directory"; },
     "rename it in the panel"},

    {"names of mail names", "all are names of directories",
     ofMailnames(ADDRESS, "WHERE " + mayBeNoComponent("m.mail_name")),
     [](const Row& row) { return isNoDirectoryName(row["name"].value); }, Verdict::warning,
     [](const Row& row) {
         return "'" + row["name"].value + "' of " + domainOf(row) + " is no name of a directory";
     },
     "rename it in the panel"},

    {"characters of names", "all reach the program",
     ofDomains("LOWER(d.name) AS value", "WHERE " + mayHaveLost("d.name")) + " UNION ALL " +
         ofMailnames("CONCAT(LOWER(m.mail_name), '@', LOWER(d.name)) AS value",
                     "WHERE " + mayHaveLost("m.mail_name")),
     always, Verdict::warning,
     [](const Row& row) {
         return row["value"].value + ": a '?' may stand for a character that does not come through";
     },
     "rename it in the panel"},

    {"domains in other letters", "all are in their ASCII form",
     ofDomains(DOMAIN, "WHERE LENGTH(CONVERT(d.name USING utf8mb4)) <> CHAR_LENGTH(d.name)"),
     always, Verdict::warning,
     [](const Row& row) {
         return domainOf(row) + ": quotas are not restored, for it is not in its ASCII form";
     },
     "give the domain its ASCII form in the panel"},

    {"domains of the mail names root", "none has the name of another thing there",
     ofDomains(DOMAIN, "WHERE LOWER(d.name) IN ('lost+found', '.default_delivery')"), always,
     Verdict::warning,
     [](const Row& row) {
         return domainOf(row) + ": the mail names root has something else of this name";
     },
     "delete it in the panel"},

    {"quotas of mail names", "all are numbers",
     ofMailnames(std::string(ADDRESS) + ", m.mbox_quota AS value",
                 "WHERE " + mayBeNoNumber("m.mbox_quota")),
     isNoNumber, Verdict::warning,
     [](const Row& row) {
         return addressOf(row) + ": " + valueOf(row) +
                " is no number, and the domain's default is taken";
     },
     "set its quota in the panel"},

    {"default quotas", "all are numbers",
     ofDomains(std::string(DOMAIN) + ", l.value AS value",
               "JOIN Subscriptions u ON u.object_type='domain' AND u.object_id=d.id "
               "JOIN SubscriptionProperties sp ON sp.subscription_id=u.id AND sp.name='limitsId' "
               "JOIN Limits l ON l.id=sp.value AND l.limit_name='mbox_quota' WHERE " +
                   mayBeNoNumber("l.value")),
     isNoNumber, Verdict::warning,
     [](const Row& row) {
         return domainOf(row) + ": " + valueOf(row) + " is no number, and no limit is taken";
     },
     "set the domain's default quota in the panel"},

    {"redirects of mail names that are no group", "none",
     ofMailnames(std::string(ADDRESS) + ", COUNT(*) AS redirects",
                 "JOIN mail_redir r ON r.mn_id=m.id WHERE NOT (m.mail_group <=> 'true') "
                 "GROUP BY m.id, d.name, m.mail_name"),
     always, Verdict::warning,
     [](const Row& row) {
         return addressOf(row) + ": redirects that are not restored: " + row["redirects"].value;
     },
     "nothing, unless it should be a group: then make it one in the panel"},

    {"redirects of groups", "all can be forwards",
     ofMailnames(std::string(ADDRESS) + ", r.address AS value",
                 "JOIN mail_redir r ON r.mn_id=m.id WHERE m.mail_group='true'"),
     canBeNoForward, Verdict::warning,
     [](const Row& row) {
         return addressOf(row) + ": " + valueOf(row) +
                " can be no forward, and is missing with those after it";
     },
     "correct or delete it in the panel"},
};

void checkRows(const CheckSink& sink, mysql::Connection& panel, const RowCheck& check) {
    const Subject subject(sink, check.subject);
    bool areAllRight = true;
    const bool isAnswered = ask(panel, subject, check.statement, [&](const Row& row) {
        if (!check.isAtFault(row))
            return;
        areAllRight = false;
        subject.say(check.verdict, check.describe(row), check.advice);
    });
    if (isAnswered && areAllRight)
        subject.ok(check.allRight);
}

}  // namespace

void checkPanelRows(const CheckSink& sink, mysql::Connection& panel) {
    for (const RowCheck& check : ROW_CHECKS)
        checkRows(sink, panel, check);
}

}  // namespace corvo::audit
