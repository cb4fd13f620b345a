// What the panel says of a generated mail server, and what that server lacks.

#pragma once

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/panel.h"

namespace corvo::equality {

/// A row of a mail name with its forwards. Two rows may come to one home.
struct Mailname {
    std::string domain;
    std::string name;
    bool hasPostbox = true;
    bool isDelivered = true;
    bool isGroup = false;
    long long quota = -1;
    std::vector<std::string> forwards;

    bool delivers() const { return hasPostbox && isDelivered; }
    /// Below the mail names root.
    std::string home() const;
};

/// What a run needs beside storage and panel. Only what a kept delivery file depends on has a
/// member of its own.
struct Means {
    bool hasAgent = true;
    bool hasLockFolder = true;
    std::optional<std::string> line;  // the default delivery line
    bool hasForwardTable = true;
    bool isReadOnly = false;  // the mail storage
    std::string mode = "--all";
    std::string missing;  // in words
};

struct Description {
    std::vector<std::string> domains;
    std::vector<long long> limits;  // of the domains
    std::vector<Mailname> mailnames;
    std::string rejects;      // "true", "false", or another word
    std::string permanently;  // likewise
};

Description randomDescription(std::mt19937_64& random);

/// The panel database with room for rows that no panel would write.
class Panel {
public:
    /// Needs a sandbox in its first state.
    Panel();

    /// Replaces all rows.
    void load(const Description& description);

    /// Hides the table of forwards or brings it back.
    void setForwardTable(bool isThere);

private:
    test::PanelDatabase database_;
    bool hasForwardTable_ = true;
};

/// Whether a random event with that chance happens.
bool chance(int percent, std::mt19937_64& random);

template <typename List>
const auto& pick(const List& list, std::mt19937_64& random) {
    return list[static_cast<std::size_t>(random() % list.size())];
}

}  // namespace corvo::equality
