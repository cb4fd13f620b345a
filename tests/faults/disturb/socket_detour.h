// Connecting to one UNIX socket and getting to another.

#pragma once

#include <sys/un.h>

#include <string>

#include "utils/guards.h"

namespace corvo::faults {

/// A listening socket under a path, which must be free. Throws std::system_error.
UniqueFd listenAt(const std::string& path);

/// Binds the socket `other` to the path of the socket `original`, in this mount namespace, as long
/// as it lives.
class SocketDetour {
public:
    SocketDetour(std::string original, const std::string& other);
    ~SocketDetour();
    SocketDetour(const SocketDetour&) = delete;
    SocketDetour& operator=(const SocketDetour&) = delete;

private:
    std::string original_;
};

/// Holds a UNIX socket's file, so that it can be reached whatever is bound to its path later.
class SocketFile {
public:
    explicit SocketFile(const std::string& path);
    /// A new connection, or none.
    UniqueFd connect() const;

private:
    UniqueFd file_;
};

}  // namespace corvo::faults
