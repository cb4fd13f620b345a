// A look at one mail name: its home, its delivery file and its quota.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "audit/databases.h"
#include "audit/item.h"
#include "audit/means.h"
#include "audit/output.h"
#include "mail/home/mailname.h"

namespace corvo::audit {

/// What the panel has said of a mail name.
struct PanelMailname {
    mail::Mailname name;
    bool delivers = false;
    std::vector<std::string> forwards;  // addresses
    std::optional<long long> quota;
    bool isReadWhole = true;  // or there are forwards of which nobody knows
};

class MailboxLook {
public:
    MailboxLook(const Means& means, Output& output, bool recount);

    /// The items of a mail name, in the order in which a run comes to them. What cannot be looked
    /// at is told to the output.
    Items at(const PanelMailname& mailname);

private:
    void tellOfHidden(Items& items);
    bool canJudgeDelivery();
    void lookAtHome(Items& items, const Item& about, const PanelMailname& mailname);
    void lookInside(Items& items, const Item& about, int home, const PanelMailname& mailname);
    void lookAtQuota(Items& items, const Item& about, int home, const PanelMailname& mailname,
                     bool isReached);

    const Means& means_;
    Output& output_;
    bool recount_;
    bool isToldOfMeans_ = false;
    QuotaRows rows_;
};

}  // namespace corvo::audit
