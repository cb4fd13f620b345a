// The mail server on which nothing that is delivered may be lost: a tree in perfect order, with
// mailboxes, groups and both, and what a run needs for them there or missing.

#pragma once

#include <string>
#include <vector>

#include "tests/faults/world/snapshot.h"
#include "tests/support/panel.h"

namespace corvo::faults {

/// One mail name.
struct Recipient {
    bool isMailbox = true;
    bool isGroup = false;
    int forwards = 0;             // of a group
    bool isInOtherOrder = false;  // on disk, than in the panel

    std::string name() const;  // "both-3-reversed", "group-0", "mailbox"
};

/// Mailboxes, groups, both, with 0 to 5 forwards, in the panel's order and in another.
std::vector<Recipient> allRecipients();

/// One of each kind.
std::vector<Recipient> fewRecipients();

/// What a run does without.
enum class Missing { nothing, lockFolder, deliveryAgent, defaultLine };

inline constexpr Missing MISSING[] = {Missing::nothing, Missing::lockFolder, Missing::deliveryAgent,
                                      Missing::defaultLine};

/// "sound", "no-lock-folder", "no-agent", "no-default-line".
std::string nameOf(Missing missing);

class DeliveryScene {
public:
    /// Takes the place of the world in the sandbox, whose databases it goes on using, until the
    /// world is reset. Throws when an undisturbed run reports a failure.
    explicit DeliveryScene(const std::vector<Recipient>& recipients);
    DeliveryScene(const DeliveryScene&) = delete;
    DeliveryScene& operator=(const DeliveryScene&) = delete;
    /// Puts back what is missing.
    ~DeliveryScene();

    /// Brings all back to the sound tree, and takes away what is to be missing.
    void reset(Missing missing = Missing::nothing) const;

    /// What a run finds.
    const Tree& before() const { return before_; }
    /// What an undisturbed run leaves that has all it needs.
    const Tree& wanted() const { return wanted_; }

    /// The .qmail files as they are now, by path below the mail names root.
    Tree deliveryFiles() const;

private:
    void describe(const std::vector<Recipient>& recipients);
    void reverseForwards(const Recipient& recipient) const;

    test::PanelDatabase panel_;
    Tree before_;
    Tree databases_;
    Tree wanted_;
};

}  // namespace corvo::faults
