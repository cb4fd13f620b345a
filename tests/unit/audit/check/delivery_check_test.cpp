#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/support/installation.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

const std::string NO_LINE_ADVICE =
    "|write the delivery agent's line into it: new mailboxes discard their mail without it";

class DeliveryCheckTest : public CheckTest {
protected:
    DeliveryCheckTest() { installMailServer(); }
};

TEST_F(DeliveryCheckTest, NamesTheAgentAndItsLine) {
    EXPECT_THAT(resultsOf(audit::checkDelivery),
                ElementsAre("ok|delivery agent|/usr/bin/deliverquota|",
                            "ok|default delivery line|| /usr/bin/deliverquota ./Maildir|"));
}

TEST_F(DeliveryCheckTest, EitherAgentsLineIsRightWhereBothAreInstalled) {
    writeFile("/usr/libexec/dovecot/dovecot-lda", "#!/bin/sh\n", 0, 0, 0755);
    writeFile(DEFAULT_DELIVERY, "| /usr/libexec/dovecot/dovecot-lda -d x\n");
    EXPECT_THAT(resultsOf(audit::checkDelivery),
                ElementsAre("ok|delivery agent|/usr/bin/deliverquota|",
                            "ok|default delivery line|| /usr/libexec/dovecot/dovecot-lda -d x|"));
}

TEST_F(DeliveryCheckTest, WithoutAnAgentNeitherIsRight) {
    std::filesystem::remove("/usr/bin/deliverquota");
    EXPECT_THAT(resultsOf(audit::checkDelivery),
                ElementsAre("problem|delivery agent|there is none|install deliverquota or "
                            "dovecot-lda: new mailboxes discard their mail without it",
                            "warning|default delivery line|names no delivery agent that is "
                            "installed: | /usr/bin/deliverquota ./Maildir|write the installed "
                            "agent's line into /var/qmail/mailnames/.default_delivery"));
}

TEST_F(DeliveryCheckTest, AnAgentThatCannotBeRunIsAProblem) {
    std::filesystem::permissions("/usr/bin/deliverquota", std::filesystem::perms(0644));
    EXPECT_EQ(resultsOf(audit::checkDelivery).at(0),
              "problem|delivery agent|/usr/bin/deliverquota is no executable file|"
              "install it again: new mailboxes discard their mail without it");
}

TEST_F(DeliveryCheckTest, AMissingLineIsAProblem) {
    std::filesystem::remove(DEFAULT_DELIVERY);
    EXPECT_EQ(resultsOf(audit::checkDelivery).at(1),
              "problem|default delivery line|/var/qmail/mailnames/.default_delivery: No such file "
              "or directory" +
                  NO_LINE_ADVICE);
}

TEST_F(DeliveryCheckTest, ALinkOfPopusersIsAProblem) {
    std::filesystem::remove(DEFAULT_DELIVERY);
    makeLink("/etc/passwd", DEFAULT_DELIVERY, POPUSER_UID);
    EXPECT_EQ(resultsOf(audit::checkDelivery).at(1),
              "problem|default delivery line|/var/qmail/mailnames/.default_delivery: Too many "
              "levels of symbolic links" +
                  NO_LINE_ADVICE);
}

}  // namespace
}  // namespace corvo::test
