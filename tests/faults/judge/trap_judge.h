// What must hold when a run has met a trap.

#pragma once

#include <functional>
#include <string>

#include "tests/faults/judge/invariants.h"
#include "tests/faults/world/outside.h"
#include "tests/faults/world/trap_scene.h"

namespace corvo::faults {

/// A run with a trap in its way.
struct Trial {
    Tree storageBefore;
    Tree storageAfter;
    OutsideState outsideBefore;
    OutsideState outsideAfter;
    Outcome outcome;
};

/// Looks, runs, looks again.
Trial tryRun(const std::function<Outcome()>& run);

/// Whether a trap may keep the entry at a path below the mail names root from being restored.
using Spoils = std::function<bool(const std::string& key)>;

/// The exit (I7), what lies outside (I5), messages (I1), every entry's owner, mode and content (I6,
/// I2, I3), all that the trap does not spoil (as restored), and that what it does spoil is named
/// (I8).
Violations judgeTrial(const Trial& trial, const Restored& golden, const Spoils& spoils);

/// What must hold even when popuser goes on changing the tree: the exit, the outside, messages, no
/// entries that nobody asked for, and all that the race does not spoil.
Violations judgeRace(const Trial& trial, const Restored& golden, const Spoils& spoils);

/// The rows that a run with a trap in the mail tree leaves: all that it does not spoil (I4).
Violations judgeRows(const Restored& golden, const Restored& found, const Spoils& spoils);

/// Runs without any trap: one makes all as it should be (I9), the next changes nothing (I10).
Violations judgeRepair(const Restored& golden);

/// Where two states of the outside differ, as I5.
Violations judgeOutside(const OutsideState& before, const OutsideState& after);

/// Whether standard error names the home: by its address, or with its whole domain.
bool isNamed(const std::string& home, const std::string& reports);

}  // namespace corvo::faults
