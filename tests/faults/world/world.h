// The mail server that every fault meets, and the states that its storage can be in.
//
// Lives in the sandbox of this process with a panel database of its own. The panel describes plain
// mailboxes, a disabled one, groups with forwards, one over its quota with attachments, and some in
// an internationalised domain.

#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/faults/world/snapshot.h"
#include "tests/support/panel.h"

namespace corvo::faults {

/// What a run finds.
enum class Start {
    damaged,   // messages and old .qmail files in some homes, other homes missing, stale rows
    restored,  // what an undisturbed run leaves
};

/// What an undisturbed run makes of a start.
struct Golden {
    Snapshot before;
    Snapshot after;
    std::string out;
    std::string err;
    /// By path below the mail names root: every content that a .qmail passes through.
    std::map<std::string, std::set<std::string>> passing;
};

class World {
public:
    /// Fills the sandbox, which must be in its first state, and makes the undisturbed runs.
    World();
    ~World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// Brings storage, databases, lock folder and canary back to a start; inodes are new ones, so a
    /// snapshot for comparison is taken afterwards.
    void reset(Start start);

    const Golden& golden(Start start) const;

    /// The panel's description, for those who put rows of their own into it.
    test::PanelDatabase& panel() { return panel_; }

private:
    test::PanelDatabase panel_;
    std::map<Start, Golden> golden_;
};

/// Installs the mail server, its damaged storage and the panel's description of it.
void furnish(test::PanelDatabase& panel);

}  // namespace corvo::faults
