#include "mail/delivery/delivery_agent.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string DELIVERQUOTA = "/usr/bin/deliverquota";
const std::string DOVECOT_LDA = "/usr/libexec/dovecot/dovecot-lda";

class DeliveryAgentTest : public LoggingTest {
protected:
    DeliveryAgentTest() { detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN; }

    static void install(const std::string& path, mode_t mode = 0755) {
        writeFile(path, "#!/bin/sh\n", 0, 0, mode);
    }
};

std::string unusable(const std::string& path) {
    return "Unable to detect IMAP/POP3 server type - LDA is present at '" + path +
           "' but is not a regular file or is not executable";
}

TEST_F(DeliveryAgentTest, KindIsThatOfTheProgramFound) {
    install(DOVECOT_LDA);
    EXPECT_EQ(detectImapPop3Server(), 1);
    detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
    install(DELIVERQUOTA);
    EXPECT_EQ(detectImapPop3Server(), 0) << "deliverquota comes first";
}

TEST_F(DeliveryAgentTest, AnyExecuteBitWillDo) {
    for (const mode_t mode : {0100U, 0010U, 0001U}) {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        install(DELIVERQUOTA, mode);
        EXPECT_EQ(detectImapPop3Server(), 0) << mode;
    }
}

TEST_F(DeliveryAgentTest, ProgramMayBeALink) {
    install("/usr/bin/deliverquota.maildrop");
    makeLink("deliverquota.maildrop", DELIVERQUOTA);
    EXPECT_EQ(detectImapPop3Server(), 0);
    ASSERT_EQ(::unlink("/usr/bin/deliverquota.maildrop"), 0);
}

TEST_F(DeliveryAgentTest, WithoutProgramNothingIsDetected) {
    EXPECT_EQ(detectImapPop3Server(), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to detect IMAP/POP3 server type - no LDA found"});
}

TEST_F(DeliveryAgentTest, DanglingLinkIsNoProgram) {
    makeLink("/nowhere", DELIVERQUOTA);
    EXPECT_EQ(detectImapPop3Server(), -1);
    expectLogged({"Unable to detect IMAP/POP3 server type - no LDA found"});
}

TEST_F(DeliveryAgentTest, FileThatCannotRunHidesTheNextProgram) {
    install(DELIVERQUOTA, 0644);
    install(DOVECOT_LDA);
    EXPECT_EQ(detectImapPop3Server(), -1);
    EXPECT_EQ(errno, EACCES);
    expectLogged({unusable(DELIVERQUOTA)});
}

TEST_F(DeliveryAgentTest, DirectoryIsNoProgram) {
    makeDirectory(DOVECOT_LDA);
    EXPECT_EQ(detectImapPop3Server(), -1);
    EXPECT_EQ(errno, EACCES);
    expectLogged({unusable(DOVECOT_LDA)});
}

TEST_F(DeliveryAgentTest, SuccessIsRemembered) {
    install(DELIVERQUOTA);
    EXPECT_EQ(detectImapPop3Server(), 0);
    ASSERT_EQ(::unlink(DELIVERQUOTA.c_str()), 0);
    install(DOVECOT_LDA);
    EXPECT_EQ(detectImapPop3Server(), 0);
}

TEST_F(DeliveryAgentTest, FailureIsNotRemembered) {
    EXPECT_EQ(detectImapPop3Server(), -1);
    expectLogged({"Unable to detect IMAP/POP3 server type - no LDA found"});
    install(DOVECOT_LDA);
    EXPECT_EQ(detectImapPop3Server(), 1);
}

}  // namespace
}  // namespace corvo::test
