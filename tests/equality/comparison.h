// Two ways to end: where they differ, and whether that difference is wanted.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/equality/description.h"
#include "tests/equality/scene.h"

namespace corvo::equality {

/// One server, before a run and after a run of either program.
struct Trial {
    Description description;
    Means means;
    faults::Tree before;
    Ending former;  // of the program of old
    Ending present;
};

/// An entry of the tree or a fact that is not the same.
struct Difference {
    std::string name;  // a path below STORAGE, or the fact's name
    bool isFact = false;
};

/// Types, owners, modes and contents of all entries, and all facts. Inodes and second names do not
/// count.
std::vector<Difference> differences(const Trial& trial);

/// The name of the exception that the difference is, or nothing. Each is narrow: the present ending
/// has to be the one that the exception asks for.
std::string_view exceptionFor(const Difference& difference, const Trial& trial);

/// The delivery files that had to stay, and miss lines with which they had to, whatever the former
/// program makes of them.
std::vector<std::string> filesNotKept(const Trial& trial);

/// Every name that exceptionFor() gives.
std::vector<std::string_view> exceptionNames();

/// Both sides of a difference for a terminal.
std::string describe(const Difference& difference, const Trial& trial);

}  // namespace corvo::equality
