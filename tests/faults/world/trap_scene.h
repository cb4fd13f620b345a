// The mail server that popuser sets traps in: small, so that thousands of runs meet it.
//
// One domain has the mailbox that traps lie in, with all that a run can do to a mailbox, and a
// neighbour; another domain is honest. popuser owns the mail names root and the quota database's
// folder, too.

#pragma once

#include <string>
#include <vector>

#include "tests/faults/world/snapshot.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

inline const std::string TRAPPED_DOMAIN = "trapped.example";
inline const std::string TRAPPED_HOME = "trapped.example/info";
inline const std::string NEIGHBOUR_HOME = "trapped.example/peer";
inline const std::string HONEST_HOME = "honest.example/office";
inline const std::string HOMES[] = {TRAPPED_HOME, NEIGHBOUR_HOME, HONEST_HOME};

/// What a run restores.
struct Restored {
    Tree storage;  // as below MAILNAMES
    std::string quotaRows;
    std::string handlerRows;

    static Restored look();
};

/// Where traps may lie: every level from the trapped domain to the files of its mailbox, the file
/// beside the domains, the quota database and what SQLite makes beside it.
std::vector<std::string> trapPlaces(const Restored& golden);

class TrapScene {
public:
    /// Takes the place of the world in the sandbox, whose databases it goes on using, until the
    /// world is reset. Places the bait. Throws when an undisturbed run reports a failure.
    TrapScene();
    ~TrapScene() = default;
    TrapScene(const TrapScene&) = delete;
    TrapScene& operator=(const TrapScene&) = delete;

    /// Brings storage and databases back to the start: messages, attachments and old delivery
    /// files, parts of homes missing, no quotas.
    void reset() const;

    /// What an undisturbed run makes of the start.
    const Restored& golden() const { return golden_; }

private:
    void describe();
    void prepareStorage() const;

    test::PanelDatabase panel_;
    Tree startStorage_;
    Tree startDatabases_;
    Restored golden_;
};

}  // namespace corvo::faults
