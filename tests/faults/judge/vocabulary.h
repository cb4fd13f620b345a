// The words that all judges of the campaign use: what a message is, a home, an entry, a row, the
// end of a run.

#pragma once

#include <string>
#include <vector>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/world/snapshot.h"

namespace corvo::faults {

/// Sentences, each naming the invariant ("I3 example.com/info/Maildir/maildirsize: ..."); empty
/// when all is well.
using Violations = std::vector<std::string>;

/// Adds violations to others.
void append(Violations& all, const Violations& more);

// --- messages; each judge says which of these it means

/// A path below a "new", a "cur" or the attachments, whatever is there.
bool liesAmongMessages(const std::string& path);
/// What lies among messages and is no directory: also a link or a pipe.
bool isStoredMessage(const std::string& path, const Entry& entry);
/// What lies among messages and is a regular file.
bool isMessageFile(const std::string& path, const Entry& entry);

// --- paths below the mail names root

/// The home that a path is, or lies in: "example.com/info".
std::string homeOf(const std::string& path);
/// "info@example.com" for "example.com/info".
std::string addressOf(const std::string& home);
/// Whether a path is this folder or lies below it.
bool isIn(const std::string& folder, const std::string& path);

// --- entries and texts, for a sentence

/// The beginning of a text, in one line.
std::string shown(const std::string& text);
/// Mode, owner, group, inode and content; "nothing" for null.
std::string shown(const Entry* entry);

// --- lines, and rows as a snapshot has them

/// Without their ends; text behind the last line end counts as a line.
std::vector<std::string> linesOf(const std::string& text);
/// Whether a row of the handlers database is one that a run writes.
bool isOwnHandler(const std::string& row);

// --- the end of a run

/// I7: a run that hangs, dies (of another signal than `expectedSignal`), ends with a status that no
/// run ends with by itself, or says that it is broken.
Violations judgeEnd(const Outcome& outcome, int expectedSignal = 0);

}  // namespace corvo::faults
