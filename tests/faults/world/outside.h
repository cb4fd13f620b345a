// What lies outside the mail tree and may not change, whatever popuser plants in it.

#pragma once

#include <sys/stat.h>

#include <map>
#include <string>

namespace corvo::faults {

/// In every file of the bait; a run that hands root's files out carries it into the mail tree.
inline const std::string BAIT_MARK = "known to root alone";

/// Puts root's own files and directories (0600 and 0700) beside the mail tree and beside the
/// databases: a counterpart for each entry of both, so that a run which follows a planted link
/// finds its way and leaves traces. Throws std::system_error.
void placeBait();

/// The counterpart of a path in the mail tree or in the quota database's folder.
std::string baitFor(const std::string& path);

/// An entry that may not change, as lstat saw it. Of a folder that a run works in only owner and
/// mode count.
struct OutsideEntry {
    struct stat seen = {};
    bool isWorkedIn = false;

    /// A file with further names in the mail tree may lose those, and nothing else.
    bool isLeftAloneSince(const OutsideEntry& before) const;
    std::string inWords() const;
};

using OutsideState = std::map<std::string, OutsideEntry>;

/// The bait, /etc/vhc, the account files and whatever stands beside the mail tree and the
/// databases.
OutsideState outsideState();

}  // namespace corvo::faults
