// A private copy of the places that the system knows by absolute path.
//
// The test process lives in a mount namespace of its own from before the first test: /etc, /usr and
// /var are overlays whose changes vanish with the process, and /etc/vhc, /var/qmail, /var/lib/corvo
// and /run are empty file systems. Nothing outside changes. Only root can make one; main() says so
// in one line to everybody else.

#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

namespace corvo::test {

// Different from each other, so that a swap is seen.
inline constexpr uid_t POPUSER_UID = 1031;
inline constexpr gid_t POPUSER_GID = 1032;

/// Another ordinary account of the sandbox.
inline constexpr uid_t STRANGER_UID = 1041;
inline constexpr gid_t STRANGER_GID = 1042;

/// Makes the namespace; called once by main(). Returns an empty text, or why it cannot be.
std::string enterSandbox();

/// Brings the sandbox to its first state: empty /etc/vhc, /var/lib/corvo; /var/qmail/mailnames
/// (root:root 0755) and /run/lock/files (root:root 0700) without entries; accounts popuser (with a
/// group of the same name) and stranger; no delivery agent; current directory "/", umask 022.
void resetSandbox();

/// Removes an account or group from the sandbox's databases.
void removeUser(const std::string& name);
void removeGroup(const std::string& name);

/// Installs an executable stand-in at /usr/bin/deliverquota.
void installDeliverquota();

/// The directory with the mail storage, "/var/qmail/mailnames".
inline const std::string MAILNAMES = "/var/qmail/mailnames";

/// A test that starts from the sandbox's first state.
class SandboxTest : public ::testing::Test {
protected:
    SandboxTest() { resetSandbox(); }
};

}  // namespace corvo::test
