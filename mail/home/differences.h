// What differs between a directory or file of the mail tree and what it should be.
//
// Whoever puts something right looks first and leaves alone what is right already; whoever only
// wants to know looks, too. A look changes nothing, logs nothing and does not throw.

#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace corvo::mail {

/// Who something should belong to.
struct Ownership {
    uid_t uid;
    gid_t gid;
    mode_t mode;  // all of 07777
};

/// Nothing is set where all is as it should be. Of what is missing, of another kind or unknown,
/// nothing else is told.
struct Differences {
    bool missing = false;
    bool kind = false;     // something else lies there: a link, too
    bool unknown = false;  // it could not be looked at
    bool owner = false;
    bool group = false;
    bool mode = false;
    bool names = false;     // a file has further names
    bool contents = false;  // of a file

    bool any() const noexcept { return *this != Differences{}; }
    friend bool operator==(const Differences&, const Differences&) = default;
};

/// Of something that should be a regular file with one name, by what fstat said of it; its contents
/// are not looked at.
[[nodiscard]] Differences fileDifferences(const struct stat& seen,
                                          const Ownership& wanted) noexcept;

/// Of something that should be a directory, by what stat said of it.
[[nodiscard]] Differences directoryDifferences(const struct stat& seen,
                                               const Ownership& wanted) noexcept;

/// Looks at the directory `path` below the open directory `base`, or at `base` itself for "". One
/// system call, which follows links on the way to the last component, but no link there.
[[nodiscard]] Differences directoryDifferences(int base, const char* path,
                                               const Ownership& wanted) noexcept;

}  // namespace corvo::mail
