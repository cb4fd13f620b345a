// A process that holds a lease on a file, as Samba and the NFS server do for their clients.

#pragma once

#include <string>

#include "tests/support/second_process.h"

namespace corvo::test {

/// While it lives, another process holds a lease for writing (fcntl F_SETLEASE). Told that somebody
/// wants to open the file, it gives way a moment later, and ends.
class LeaseHolder {
public:
    /// Throws std::runtime_error when there is no lease to be had.
    explicit LeaseHolder(const std::string& path);

    /// Whether the process was told so, and has given way by now. Once only.
    bool gaveWay() { return process_.endedWell(); }

private:
    SecondProcess process_;
};

}  // namespace corvo::test
