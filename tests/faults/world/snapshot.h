// All that a run may and may not change, as it is at one moment.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace corvo::faults {

/// One entry of a tree. Times are kept of canaries only.
struct Entry {
    mode_t mode = 0;  // with the type
    uid_t uid = 0;
    gid_t gid = 0;
    ino_t inode = 0;
    std::string content;        // of a file; of a link its target
    std::int64_t modified = 0;  // nanoseconds; 0 where times do not count

    bool operator==(const Entry&) const = default;
};

/// By path relative to the tree's top, which is "".
using Tree = std::map<std::string, Entry>;

struct Snapshot {
    Tree storage;             // /var/qmail/mailnames
    Tree databases;           // /var/lib/corvo
    Tree locks;               // /run/lock/files
    Tree canary;              // what must never change: canaryFolders(), by path relative to "/"
    std::string quotaRows;    // a line per row, keys first
    std::string handlerRows;  // a line per row, keys first
    std::string integrity;    // empty, or what SQLite's integrity_check found

    /// Reads the sandbox. The SQLite files are read from copies (with their journals, so that a
    /// killed run's transaction is rolled back in the copy only). Throws std::system_error.
    static Snapshot take();

    /// What these trees hold, and the rows in them; no locks and no canary.
    static Snapshot of(Tree storage, Tree databases);
};

/// Everything else in the sandbox that a run could reach.
const std::set<std::string>& canaryFolders();

/// The tree below `path`, links not followed.
Tree readTree(const std::string& path, bool withTimes = false);

/// Brings what lies below `path` from `current` to `wanted`, inodes apart; touches only what
/// differs. Throws std::system_error.
void restoreTree(const std::string& path, const Tree& current, const Tree& wanted);

/// Brings storage, databases, lock folder and canary back; inodes of what was replaced are new.
void restoreSandbox(const Snapshot& wanted);

}  // namespace corvo::faults
