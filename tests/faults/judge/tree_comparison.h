// Two trees side by side: the one comparison of the judges.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/world/snapshot.h"

namespace corvo::faults {

/// Null when there is none.
const Entry* entryAt(const Tree& tree, const std::string& path);

/// Given a path of either tree and its two entries, null where there is none.
using Visit = std::function<void(const std::string& path, const Entry* left, const Entry* right)>;

/// Visits each path that is in either tree.
void compare(const Tree& left, const Tree& right, const Visit& visit);

/// Whether there is no entry on either side, or the same one: not even made anew.
bool isUntouched(const Entry* left, const Entry* right);

/// In type, mode, owner or content; also when one of the two is missing.
bool isDifferent(const Entry* left, const Entry* right);

/// As isDifferent(), or in the time of modification, which is kept of canaries only.
bool isChanged(const Entry* left, const Entry* right);

/// The paths at which two trees differ so.
std::vector<std::string> pathsThat(bool (*differ)(const Entry*, const Entry*), const Tree& left,
                                   const Tree& right);

}  // namespace corvo::faults
