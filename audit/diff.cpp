#include "audit/diff.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <optional>
#include <string>

#include "audit/databases.h"
#include "audit/extras.h"
#include "audit/item.h"
#include "audit/mailbox_look.h"
#include "audit/means.h"
#include "audit/progress.h"
#include "audit/status.h"
#include "audit/text.h"
#include "audit/tree_look.h"
#include "audit/walk_gaps.h"
#include "lib/db++/connection.h"
#include "mail/home/mail_paths.h"
#include "mail/home/maildir_manager.h"
#include "restore/walker.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using Name = const std::string&;
using State = FoundDirectory::State;

Tone toneOf(const Item& item) {
    return item.repair == Repair::none && !item.isExtra ? Tone::problem : Tone::warning;
}

// What was found so far.
class Findings {
public:
    explicit Findings(Output& output) : output_(output) {}

    void print(const Items& items) {
        for (const Item& item : items)
            print(item);
    }

    void print(const Item& item) {
        output_.print(recordOf(item), lineOf(item), toneOf(item));
        ++items_;
        repairable_ += item.repair == Repair::none ? 0 : 1;
        extras_ += item.isExtra ? 1 : 0;
    }

    void countMailbox(bool differs) {
        ++mailboxes_;
        differing_ += differs ? 1 : 0;
    }

    bool isNothing() const { return items_ == 0; }

    bool finish() {
        const Record summary = {{"mailboxes", mailboxes_},
                                {"differing", differing_},
                                {"items", items_},
                                {"repairable", repairable_},
                                {"extras", extras_}};
        return output_.finish(summary, summaryLine());
    }

private:
    std::string summaryLine() const {
        const std::string mailboxes = fmt::format(
            "{} of {} {}", withSeparators(differing_), counted(mailboxes_, "mailbox", "mailboxes"),
            differing_ == 1 || mailboxes_ == 1 ? "differs" : "differ");
        return isNothing() ? mailboxes + "." : mailboxes + ": " + itemsText() + ".";
    }

    std::string itemsText() const {
        std::string text = counted(items_ - extras_, "item", "items");
        if (items_ > extras_)
            text += repairable_ == items_ - extras_ ? ", all repaired by --all"
                    : repairable_ == 0
                        ? ", none repaired by --all"
                        : fmt::format(", {} repaired by --all", withSeparators(repairable_));
        return extras_ == 0 ? text
                            : text + fmt::format("; {}", counted(extras_, "extra", "extras"));
    }

    Output& output_;
    std::size_t mailboxes_ = 0;
    std::size_t differing_ = 0;
    std::size_t items_ = 0;
    std::size_t repairable_ = 0;
    std::size_t extras_ = 0;
};

// What the panel says, compared as it is told.
class Diff {
public:
    Diff(const Options& options, Output& output)
        : options_(options),
          output_(output),
          means_(findMeans()),
          look_(means_, output, options.recount),
          progress_(options),
          findings_(output) {}

    int run() {
        mysql::Connection connection(/*open_now=*/true);
        if (options_.extras)
            prepareExtras(connection);
        mail::restore::MailsrvEntitiesCallbacks slots = boundSlots();
        mail::restore::walkMailServerEntities(slots, connection);
        leaveDomain();
        if (extras_)
            extras_->finish([this](const Item& item) { findings_.print(item); });
        tellOfGaps();
        return status(findings_.finish());
    }

private:
    void prepareExtras(mysql::Connection& connection) {
        try {
            extras_.emplace(output_, options_.scope, connection);
        } catch (const mysql::mError& failure) {
            output_.omit(std::string("the panel database: ") + failure.what() +
                         ": extras were not looked for");
        }
    }

    mail::restore::MailsrvEntitiesCallbacks boundSlots() {
        mail::restore::MailsrvEntitiesCallbacks slots;
        slots.registerDomain = [this](Name domain, bool) { enterDomain(domain); };
        slots.registerMailbox = [this](Name domain, Name mailname, bool delivers) {
            enterMailname(domain, mailname, delivers);
        };
        slots.setMailboxQuota = [this](Name, Name, long long quota) {
            if (mailname_)
                mailname_->quota = quota;
            reportsBefore_ = mail::restore::reportsOfLastWalk();
        };
        slots.registerMailRedirect = [this](Name, Name, Name address) {
            if (mailname_)
                mailname_->forwards.push_back(address);
        };
        if (options_.scope.isAll())
            slots.enableRejectOverquota = [this](bool reject, bool permanently) {
                leaveDomain();
                Items items;
                lookAtOverquotaRecords(items, output_, reject, permanently);
                findings_.print(items);
            };
        return slots;
    }

    void enterDomain(Name domain) {
        leaveDomain();
        progress_.step();
        isDomainReachable_ = true;
        if (extras_)
            extras_->enterDomain(domain);
        lookAtRoot(domain);
    }

    // Where a run cannot make a domain's root, it comes to none of its mailboxes.
    void lookAtRoot(Name domain) {
        const std::string path = mail::MaildirManager::getInstance().getDomainRoot(domain);
        const FoundDirectory root = findRoot(domain, path);
        isDomainReachable_ = root.state == State::there || root.state == State::missing;
        obstacle_ = isDomainReachable_ ? ""
                                       : path + ": " + root.reason + ": the mailboxes of " +
                                             domain + " were not looked at";
        if (!options_.scope.includes(domain))
            return;
        isAnythingMeant_ = true;
        printRoot(domain, path, root);
        if (root.state == State::unseen)
            tellOfObstacle();
    }

    FoundDirectory findRoot(Name domain, const std::string& path) const {
        if (mail::isPathComponent(domain))
            return findDirectory(AT_FDCWD, path.c_str(), means_.domainRoot);
        FoundDirectory root;
        root.state = State::blocked;
        root.reason = "can be the name of no directory";
        return root;
    }

    void printRoot(Name domain, const std::string& path, const FoundDirectory& root) {
        Item item;
        item.kind = ItemKind::domainRoot;
        item.domain = domain;
        item.path = path;
        item.repair = means_.isReadOnly ? Repair::none : Repair::all;
        Items items;
        addRootItems(items, item, root);
        findings_.print(items);
    }

    // Once for a domain, and only where there is something behind it that is meant.
    void tellOfObstacle() {
        if (!obstacle_.empty())
            output_.omit(obstacle_);
        obstacle_.clear();
    }

    void addRootItems(Items& items, Item item, const FoundDirectory& root) const {
        if (root.state == State::there || root.state == State::closed)
            return addOwnershipItems(items, item, root.differences, root.seen, means_.domainRoot);
        if (root.state == State::unseen)
            return;
        item.reason = root.state == State::missing ? "is missing" : root.reason;
        if (root.state == State::blocked)
            item.repair = Repair::none;
        items.push_back(std::move(item));
    }

    void enterMailname(Name domain, Name mailname, bool delivers) {
        leaveMailname();
        if (extras_)
            extras_->know(mailname);
        if (!options_.scope.includes(domain, mailname))
            return;
        isAnythingMeant_ = true;
        if (isDomainReachable_)
            mailname_.emplace(PanelMailname{mail::Mailname(domain, mailname), delivers, {}, {}});
        else
            tellOfObstacle();
    }

    void leaveMailname() {
        if (!mailname_)
            return;
        mailname_->isReadWhole = mail::restore::reportsOfLastWalk() == reportsBefore_;
        const Items items = look_.at(*mailname_);
        findings_.countMailbox(!items.empty());
        findings_.print(items);
        mailname_.reset();
    }

    void leaveDomain() {
        leaveMailname();
        if (extras_)
            extras_->leaveDomain([this](const Item& item) { findings_.print(item); });
    }

    void tellOfGaps() {
        omitGapsOfWalk(output_);
        if (!isAnythingMeant_ && findings_.isNothing())
            omitUnmetScope(output_, options_.scope);
    }

    int status(bool isPrinted) const {
        if (!isPrinted || !output_.isWhole())
            return NOT_WHOLE;
        return findings_.isNothing() ? NOTHING_TO_REPAIR : SOMETHING_TO_REPAIR;
    }

    const Options& options_;
    Output& output_;
    Means means_;
    MailboxLook look_;
    Progress progress_;
    Findings findings_;
    std::optional<Extras> extras_;
    bool isAnythingMeant_ = false;
    bool isDomainReachable_ = true;
    std::string obstacle_;  // on the way to the domain; empty: none, or told
    std::optional<PanelMailname> mailname_;
    std::size_t reportsBefore_ = 0;  // the forwards of this mail name were read
};

}  // namespace

int diff(const Options& options, Output& output) {
    return Diff(options, output).run();
}

}  // namespace corvo::audit
