#include "audit/mailbox_look.h"

#include <fcntl.h>

#include "audit/delivery_look.h"
#include "audit/quota_look.h"
#include "audit/tree_look.h"
#include "mail/delivery/dotqmail.h"
#include "mail/quota/maildirpp_quota.h"

namespace corvo::audit {

namespace {

using State = FoundDirectory::State;

// A run does not come to the forwards behind one that is to no address.
DeliveryWish wishOf(const PanelMailname& mailname) {
    DeliveryWish wish;
    wish.delivers = mailname.delivers;
    wish.isReadWhole = mailname.isReadWhole;
    for (const std::string& address : mailname.forwards) {
        const std::string line = mail::forwardLine(address);
        if (line.empty())
            wish.noAddresses.push_back(address);
        else
            (wish.noAddresses.empty() ? wish.forwards : wish.unreached).push_back(line);
    }
    return wish;
}

Item itemOf(const mail::Mailname& name) {
    Item item;
    item.kind = ItemKind::home;
    item.domain = name.domain();
    item.mailbox = name.name();
    item.path = name.home().native();
    item.repair = Repair::all;
    return item;
}

Item deliveryOf(Item about) {
    about.path += "/.qmail";
    return about;
}

void addUnrepaired(Items& items, Item item, ItemKind kind, std::string reason) {
    item.kind = kind;
    item.reason = std::move(reason);
    item.repair = Repair::none;
    items.push_back(std::move(item));
}

// The rows lie elsewhere.
void promiseNothingInHome(Items& items) {
    for (Item& item : items)
        if (item.kind != ItemKind::quotaRow)
            item.repair = Repair::none;
}

}  // namespace

MailboxLook::MailboxLook(const Means& means, Output& output, bool recount)
    : means_(means), output_(output), recount_(recount), rows_(output) {}

Items MailboxLook::at(const PanelMailname& mailname) {
    Items items;
    const Item about = itemOf(mailname.name);
    if (mailname.name.isSound())
        lookAtHome(items, about, mailname);
    else
        addUnrepaired(items, about, ItemKind::home, "can be the name of no directory");
    if (means_.isReadOnly)
        promiseNothingInHome(items);
    tellOfHidden(items);
    return items;
}

void MailboxLook::tellOfHidden(Items& items) {
    for (const Item& item : items)
        if (item.isHidden)
            output_.omit(item.path + ": " + item.reason);
    std::erase_if(items, [](const Item& item) { return item.isHidden; });
}

// Without all its means it is unknown what a run makes of any file: that is told once.
bool MailboxLook::canJudgeDelivery() {
    if (means_.hidden.empty())
        return true;
    if (!isToldOfMeans_)
        output_.omit(means_.hidden + ": the delivery files were not looked at");
    isToldOfMeans_ = true;
    return false;
}

void MailboxLook::lookAtHome(Items& items, const Item& about, const PanelMailname& mailname) {
    const FoundDirectory home = findDirectory(AT_FDCWD, about.path.c_str(), means_.home);
    switch (home.state) {
        case State::there:
            addOwnershipItems(items, about, home.differences, home.seen, means_.home);
            lookInside(items, about, home.directory.get(), mailname);
            break;
        case State::missing:
            items.push_back(about);
            items.back().reason = "is missing";
            if (canJudgeDelivery())
                lookAtDeliveryToCome(items, deliveryOf(about), wishOf(mailname), means_);
            lookAtQuota(items, about, -1, mailname, /*isReached=*/!means_.isReadOnly);
            break;
        case State::blocked:
            addUnrepaired(items, about, ItemKind::home, home.reason);
            lookAtQuota(items, about, -1, mailname, /*isReached=*/false);
            break;
        case State::closed:
            addOwnershipItems(items, about, home.differences, home.seen, means_.home);
            [[fallthrough]];
        case State::unseen:
            output_.omit(about.path + ": " + home.reason + ": the mailbox was not looked at");
            break;
    }
}

void MailboxLook::lookInside(Items& items, const Item& about, int home,
                             const PanelMailname& mailname) {
    const HomeAfterwards afterwards = lookAtSkeleton(items, about, home, means_.home);
    if (canJudgeDelivery())
        lookAtDelivery(items, deliveryOf(about), wishOf(mailname), means_, afterwards.isWhole);
    lookAtQuota(items, about, home, mailname, afterwards.hasMaildir && !means_.isReadOnly);
}

// `home` is open, or -1 where there is none yet: a run then makes the file with it.
void MailboxLook::lookAtQuota(Items& items, const Item& about, int home,
                              const PanelMailname& mailname, bool isReached) {
    if (!mailname.quota)
        return;
    const mail::Mailname& name = mailname.name;
    const std::string place = mail::quotaHomeOf(name.plainDomain(), name.plainName());
    if (place != name.home()) {
        addUnrepaired(items, about, ItemKind::maildirsize,
                      place.empty() ? "gets no quota: its names lead to no home"
                                    : "gets no quota: its home is looked for in " + place);
        isReached = false;
    } else if (home >= 0) {
        isReached = lookAtMaildirsize(items, about, home, *mailname.quota, means_, recount_,
                                      isReached) == QuotaStage::goesOn;
    }
    rows_.lookAt(items, about, *mailname.quota, isReached);
}

}  // namespace corvo::audit
