#include "mail/quota/quota_row.h"

#include <algorithm>

#include "utils/strings.h"

namespace corvo::mail {

namespace {

// SQL compares, since it tells a BLOB of the same bytes from a text.
constexpr const char* LOOK =
    "SELECT quota = ?3, substr(quota, 1, 64) FROM mailbox_quota WHERE domain_name = ?1 AND "
    "mailbox_name = ?2";

Parameter quotaParameter(long long quota) {
    return {"quota", std::to_string(std::max(quota, 0LL)) + "B"};
}

}  // namespace

Parameter domainParameter(const std::string& domain) {
    return {"domain_name", to_lower(domain)};
}

Parameter mailboxParameter(const std::string& mailbox) {
    return {"mailbox_name", to_lower(mailbox)};
}

QuotaRow quotaRow(const std::string& domain, const std::string& mailbox, long long quota) {
    return {domainParameter(domain), mailboxParameter(mailbox), quotaParameter(quota)};
}

QuotaRowLook::QuotaRowLook(const SqliteSession& session) noexcept
    : statement_(session, LOOK, SqliteUse::look) {}

RowDifferences QuotaRowLook::at(const QuotaRow& row) {
    found_.clear();
    const bool isReady =
        statement_ && std::all_of(row.begin(), row.end(), [this](const Parameter& parameter) {
            return statement_.bind(parameter.value);
        });
    if (!isReady)
        return {.unknown = true};
    const RowDifferences differences = rowDifferences(statement_);
    if (const char* const text =
            differences.missing || differences.unknown ? nullptr : statement_.text(1))
        found_ = text;
    statement_.rewind();
    return differences;
}

}  // namespace corvo::mail
