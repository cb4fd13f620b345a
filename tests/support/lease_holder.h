// A process that holds a lease on a file, as Samba and the NFS server do for their clients.

#pragma once

#include <sys/types.h>

#include <string>

namespace corvo::test {

/// While it lives, another process holds a lease for writing (fcntl F_SETLEASE). Told that somebody
/// wants to open the file, it gives way a moment later, and ends.
class LeaseHolder {
public:
    /// Throws std::runtime_error when there is no lease to be had.
    explicit LeaseHolder(const std::string& path);
    ~LeaseHolder();
    LeaseHolder(const LeaseHolder&) = delete;
    LeaseHolder& operator=(const LeaseHolder&) = delete;

    /// Whether the process was told so, and has given way by now.
    bool gaveWay();

private:
    pid_t child_ = -1;
};

}  // namespace corvo::test
