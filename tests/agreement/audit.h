// The auditing program over what is there, and what it says.

#pragma once

#include <string>
#include <vector>

namespace corvo::agreement {

/// One item, without what was found, but for a line too many, which has no other name: what was
/// found may change with what is repaired beside it.
struct Finding {
    std::string kind;
    std::string domain;
    std::string mailbox;
    std::string path;
    std::string reason;
    std::string expected;
    std::string surplus;
    bool isRepaired = false;  // by a full run
    std::string resolved;     // where `path` leads to

    bool isSame(const Finding& other) const;
    /// For a terminal.
    std::string text() const;
};

using Findings = std::vector<Finding>;

struct Audit {
    int status = -1;
    std::string err;  // what was not looked at
    bool hung = false;
    Findings findings;
    std::vector<std::string> touched;  // paths that are not what they were before it

    bool hasQuotaRows() const;
    bool hasHandlerRecords() const;
};

/// `mail_audit diff --recount`. Throws when it prints anything else than objects.
Audit runAudit();

}  // namespace corvo::agreement
