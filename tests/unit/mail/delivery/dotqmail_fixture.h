// What the tests of delivery files share.

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/dotqmail.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"

namespace corvo::test::dotqmail {

inline const std::string HOME = MAILNAMES + "/example.com/info";
inline const std::string DOTQMAIL = HOME + "/.qmail";
inline const std::string DEFAULT_DELIVERY = MAILNAMES + "/.default_delivery";
inline const std::string OUTSIDE = "/var/lib/corvo/outside";

inline const std::string DELIVERY_LINE =
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir";

// Every known delivery line, to the letter.
inline const std::vector<std::string> KNOWN_DELIVERY_LINES = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
};

inline const std::string NOT_ADDED = "Unable to add delivery string to '" + DOTQMAIL + "'";
inline const LoggedLine OLD_NOT_REMOVED = {
    "Unable to remove old delivery strings from '" + DOTQMAIL + "'", 4};

class DotqmailTest : public LoggingTest {
protected:
    DotqmailTest() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        installDeliverquota();
        writeFile(DEFAULT_DELIVERY, DELIVERY_LINE + "\n");
        makeDirectory(HOME);
    }

    /// Content of the delivery file, after a look at its owner and mode.
    static std::string delivered() {
        EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
        return contentsOf(DOTQMAIL);
    }
};

inline const char* path() {
    return DOTQMAIL.c_str();
}

}  // namespace corvo::test::dotqmail
