#include <sys/stat.h>

#include <filesystem>
#include <iterator>

#include "tests/equality/damage.h"
#include "tests/faults/disturb/hostile_values.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::equality {

namespace {

namespace fs = std::filesystem;

using faults::below;
using test::POPUSER_GID;
using test::POPUSER_UID;

constexpr int ALL_THERE = 45;  // in a hundred
constexpr int RIGHT_ROW = 55;

constexpr const char* AGENT = "/usr/bin/deliverquota";
constexpr const char* OTHER_AGENT = "/usr/libexec/dovecot/dovecot-lda";
constexpr const char* LOCKS = "/run/lock/files";

const std::vector<std::string> LINES = {
    test::DELIVERY_LINE,
    test::DELIVERY_LINE,
    test::DELIVERY_LINE,
    "./Maildir/",
    "| /opt/own/deliver ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
    "&all@away.example",
    "&a@away.example",
    "| true",
};

std::string sqlText(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

void damageRow(const Mailname& name, std::mt19937_64& random) {
    const std::string home = name.home();
    const std::size_t slash = home.find('/');
    const std::string key = "domain_name=" + sqlText(home.substr(0, slash)) +
                            " AND mailbox_name=" + sqlText(home.substr(slash + 1));
    const std::vector<std::string> statements = {
        "DELETE FROM mailbox_quota WHERE " + key,
        "UPDATE mailbox_quota SET quota='7K' WHERE " + key,
        "UPDATE mailbox_quota SET quota=CAST(quota AS BLOB) WHERE " + key,
        "UPDATE mailbox_quota SET mailbox_name=upper(mailbox_name) WHERE " + key,
        "UPDATE mailbox_quota SET mailbox_name=CAST(mailbox_name AS BLOB) WHERE " + key,
        "UPDATE mailbox_quota SET quota='' WHERE " + key,
    };
    test::sqliteExecute(test::USERDB, pick(statements, random));
}

void damageHandlers(std::mt19937_64& random) {
    const std::vector<std::string> statements = {
        "DELETE FROM handlers",
        "DELETE FROM handlers WHERE name='check-quota' AND queue=1",
        "UPDATE handlers SET priority=3 WHERE name='check-quota'",
        "UPDATE handlers SET enabled=0 WHERE name='check-quota'",
        "UPDATE handlers SET protected=1-protected WHERE name='check-quota'",
        "UPDATE handlers SET executable=CAST(executable AS BLOB) WHERE name='check-quota'",
        "UPDATE handlers SET context='other' WHERE name='check-quota'",
        "INSERT OR REPLACE INTO handlers VALUES (4, 5, 1, 9, 'check-quota', 'x', '/x', 'none', 0)",
        "INSERT OR REPLACE INTO handlers VALUES (1, 5, 1, 2, 'grey', 'x', '/x', 'none', 1)",
    };
    test::sqliteExecute(test::HANDLERS, pick(statements, random));
}

std::string loseDatabase(const std::string& path, std::mt19937_64& random) {
    switch (below(4, random)) {
        case 0:
            fs::remove(path);
            return "without " + path;
        case 1:
            test::writeFile(path, "no database, and of some length, so that it shows\n",
                            POPUSER_UID, POPUSER_GID, 0640);
            return "another file as " + path;
        case 2:
            test::writeFile(path, "", POPUSER_UID, POPUSER_GID, 0640);
            return "an empty " + path;
        default:
            fs::remove_all(fs::path(path).parent_path());
            return "no folder of " + path;
    }
}

void note(Means& means, const std::string& what) {
    means.missing += (means.missing.empty() ? "" : ", ") + what;
}

void loseAgent(Means& means, std::mt19937_64& random) {
    fs::remove(AGENT);
    fs::remove(OTHER_AGENT);  // of an earlier loss
    means.hasAgent = false;
    switch (below(4, random)) {
        case 0:
            test::writeFile(AGENT, "", 0, 0, 0644);
            return note(means, "an agent that is no program");
        case 1:
            test::writeFile(OTHER_AGENT, "#!/bin/sh\n", 0, 0, 0755);
            means.hasAgent = true;
            return note(means, "the other agent");
        default:
            return note(means, "no agent");
    }
}

void loseLocks(Means& means, std::mt19937_64& random) {
    fs::remove_all(LOCKS);
    if (chance(20, random))
        test::writeFile(LOCKS, "");
    means.hasLockFolder = false;
    note(means, "no lock folder");
}

void loseLine(Means& means, std::mt19937_64& random) {
    fs::remove(test::DEFAULT_DELIVERY);
    means.line.reset();
    switch (below(5, random)) {
        case 0:
            test::writeFile(test::DEFAULT_DELIVERY, "", POPUSER_UID, POPUSER_GID, 0600);
            return note(means, "an empty default file");
        case 2:
            test::writeFile(test::DEFAULT_DELIVERY, "\n./Maildir/\n", POPUSER_UID, POPUSER_GID,
                            0600);
            means.line = "";
            return note(means, "an empty default line");
        case 1:
            test::makeDirectory(test::DEFAULT_DELIVERY);
            return note(means, "a directory as default line");
        default:
            return note(means, "no default line");
    }
}

void loseAccount(Means& means, std::mt19937_64& /*random*/) {
    test::removeUser("popuser");
    note(means, "no popuser");
}

void loseForwards(Means& means, std::mt19937_64& /*random*/) {
    means.hasForwardTable = false;
    note(means, "no table of forwards");
}

void loseWriting(Means& means, std::mt19937_64& /*random*/) {
    means.isReadOnly = true;
    note(means, "read-only storage");
}

constexpr void (*LOSSES[])(Means&, std::mt19937_64&) = {
    loseAgent, loseAgent, loseAgent, loseLocks,    loseLocks,   loseLocks,
    loseLine,  loseLine,  loseLine,  loseForwards, loseWriting, loseAccount,
};

}  // namespace

void damageDatabases(const Description& description, Means& means, std::mt19937_64& random) {
    for (const Mailname& name : description.mailnames)
        if (!chance(RIGHT_ROW, random))
            damageRow(name, random);
    if (!chance(RIGHT_ROW, random))
        damageHandlers(random);
    // On a read-only storage only the present program may come as far as to make it anew.
    if (!means.isReadOnly && chance(4, random))
        note(means, loseDatabase(test::USERDB, random));
    if (chance(4, random))
        note(means, loseDatabase(test::HANDLERS, random));
}

std::string chooseLine(std::mt19937_64& random) {
    std::string line = pick(LINES, random);
    test::writeFile(test::DEFAULT_DELIVERY, line + (chance(80, random) ? "\n" : ""), POPUSER_UID,
                    POPUSER_GID, 0600);
    return line;
}

Means takeMeans(const std::string& line, std::mt19937_64& random) {
    Means means;
    means.line = line;
    if (chance(5, random))
        means.mode = "--fast";
    if (chance(ALL_THERE, random))
        return means;
    for (std::size_t left = chance(20, random) ? 2 : 1; left > 0; --left)
        LOSSES[below(std::size(LOSSES), random)](means, random);
    return means;
}

}  // namespace corvo::equality
