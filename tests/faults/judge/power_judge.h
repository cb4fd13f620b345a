// What must be found after a power cut (I12).

#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/faults/judge/vocabulary.h"
#include "tests/faults/world/world.h"

namespace corvo::faults {

/// What a restart finds.
struct CutImage {
    Snapshot found;      // storage, databases and rows
    std::string damage;  // what the file system's own check complains of
};

/// Contents that stood in a file at some instant of the runs, by its path below the mail names
/// root.
using Stood = std::map<std::string, std::set<std::string>>;

/// Whether a delivery file, which may be missing, has forwards: then it stands in more than two
/// ways.
bool forwards(const Entry* file);

/// At any moment of a run, or of one that follows a killed one: a sound file system; every .qmail
/// and maildirsize as it was before or as restored, each whole; every message as before; both
/// databases sound with old or new rows. The forwards of a group come one by one: its .qmail may
/// also be as it `stood` on the way, in whole lines. What was delivered is delivered on (I11).
Violations judgeCut(const Golden& golden, const Stood& stood, const CutImage& image);

/// After a run has ended with status 0: all of it is there.
Violations judgeCutAfterEnd(const Golden& golden, const CutImage& image);

}  // namespace corvo::faults
