// Delivery agents that we did not write, where the installed system has them.

#pragma once

#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/skip.h"

namespace corvo::test {

inline const std::string DOVECOT_LINE =
    "| /usr/libexec/dovecot/dovecot-lda -d \"$DELIVERED_TO\" -a "
    "\"${ORIGINAL_RECIPIENT:-$DELIVERED_TO}\"";

/// Makes `line` the default delivery line.
inline void setDefaultLine(const std::string& line) {
    writeFile(DEFAULT_DELIVERY, line + "\n", POPUSER_UID, POPUSER_GID, 0600);
}

/// Skips the test where a file is missing that a package brings.
inline void requirePackage(const std::string& package, const std::string& file) {
    if (!exists(file))
        skipTest("the package " + package + " is not installed");
}

/// Puts Courier's deliverquota in place of the stand-in, or skips the test.
inline void installCourierAgent() {
    const std::string agent = "/usr/sbin/deliverquota.maildrop";
    requirePackage("maildrop", agent);
    std::filesystem::remove("/usr/bin/deliverquota");
    makeLink(agent, "/usr/bin/deliverquota");
    setDefaultLine(DELIVERY_LINE);
}

/// Puts Dovecot's dovecot-lda in place of the stand-in, or skips the test. It needs a Dovecot.
inline void installDovecotAgent() {
    const std::string agent = "/usr/lib/dovecot/dovecot-lda";
    requirePackage("dovecot-core", agent);
    requirePackage("dovecot-core", "/usr/bin/doveadm");
    requirePackage("dovecot-sqlite", "/usr/lib/dovecot/modules/auth/libdriver_sqlite.so");
    std::filesystem::remove("/usr/bin/deliverquota");
    makeDirectory("/usr/libexec/dovecot");
    makeLink(agent, "/usr/libexec/dovecot/dovecot-lda");
    setDefaultLine(DOVECOT_LINE);
}

}  // namespace corvo::test
