// What popuser plants in place of something that a run opens, makes, changes, renames or counts.

#pragma once

#include <string>
#include <vector>

namespace corvo::faults {

enum class TrapKind {
    link,          // to root's counterpart of the place
    procLink,      // the same through /proc/self/root
    danglingLink,  // to a name that root's folder does not hold
    loopLink,      // to itself
    stolenLink,    // a link of root's under a second name
    hardLink,      // to a file of root's
    emptyLink,     // the same, and the file is empty
    fifo,
    socket,
    wrongType,    // a directory in place of a file, a file in place of a directory
    deepNesting,  // directories within directories, more than a run enters
};

inline constexpr TrapKind TRAP_KINDS[] = {
    TrapKind::link,       TrapKind::procLink,  TrapKind::danglingLink, TrapKind::loopLink,
    TrapKind::stolenLink, TrapKind::hardLink,  TrapKind::emptyLink,    TrapKind::fifo,
    TrapKind::socket,     TrapKind::wrongType, TrapKind::deepNesting,
};

std::string nameOf(TrapKind kind);

/// Moves what is at `path` (if anything) to ".aside" at the top of the mail tree or of the quota
/// database's folder, and plants. All throw std::system_error.
void plantTrap(const std::string& path, TrapKind kind);

/// Removes the trap, or what a run has put in its place, and moves back what was there.
void removeTrap(const std::string& path);

/// Plants without moving anything: `path` must be free.
void plant(const std::string& path, TrapKind kind, bool inPlaceOfDirectory);

/// Where plantTrap() keeps what was at `path`.
std::string asideOf(const std::string& path);

}  // namespace corvo::faults
