#include "mail/home/mailname.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string>

#include "mail/home/mail_paths.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

using corvo::mail::formatHome;
using corvo::mail::homeOf;
using corvo::mail::isNamesDeep;
using corvo::mail::Mailname;

using MailnameTest = SandboxTest;

TEST_F(MailnameTest, HomeHasBothNamesInLowerCase) {
    const Mailname mailname("Example.COM", "Info");
    EXPECT_EQ(mailname.home(), MAILNAMES + "/example.com/info");
    EXPECT_EQ(mailname.domain(), "Example.COM");
    EXPECT_EQ(mailname.name(), "Info");
    EXPECT_TRUE(mailname.isSound());
}

TEST_F(MailnameTest, NameThatLeadsElsewhereIsNotSound) {
    for (const std::string odd : {"", ".", "..", "a/b", "/etc", "a/"}) {
        SCOPED_TRACE(odd);
        EXPECT_FALSE(Mailname("example.com", odd).isSound());
        EXPECT_FALSE(Mailname(odd, "info").isSound());
    }
}

TEST_F(MailnameTest, NameWithAZeroByteIsEmptyToPlainFunctionsAndNotSound) {
    const std::string cut("info\0x", 6);
    const Mailname mailname("example.com", cut);
    EXPECT_FALSE(mailname.isSound());
    EXPECT_STREQ(mailname.plainName(), "");
    EXPECT_STREQ(mailname.plainDomain(), "example.com");
    EXPECT_STREQ(Mailname(cut, "info").plainDomain(), "");
    EXPECT_EQ(mailname.name(), cut);
}

TEST_F(MailnameTest, OnlyTheQuotasHomeLowerCasesTheRootToo) {
    const ProcessResult result = runForked([] {
        writeFile("/etc/vhc/vhc.conf", "CORVO_MAILNAMES_D /var/Mail\n");
        char home[64];
        std::cout << formatHome(home, sizeof home, "Example.com", "Info") << home << "\n"
                  << homeOf("Example.com", "Info");
    });
    EXPECT_EQ(result.out, "1/var/mail/example.com/info\n/var/Mail/example.com/info");
}

TEST_F(MailnameTest, HomeThatDoesNotFitIsNotWritten) {
    const std::string whole = MAILNAMES + "/a.b/c";
    char home[64];
    EXPECT_TRUE(formatHome(home, whole.size() + 1, "a.b", "c"));
    EXPECT_FALSE(formatHome(home, whole.size(), "a.b", "c"));
}

TEST_F(MailnameTest, DepthCountsBelowTheMailNamesRootOnly) {
    EXPECT_TRUE(isNamesDeep(MAILNAMES + "/a.b/c", 2));
    EXPECT_FALSE(isNamesDeep(MAILNAMES + "/a.b/c", 3));
    EXPECT_FALSE(isNamesDeep(MAILNAMES + "/a.b/", 2));
    EXPECT_FALSE(isNamesDeep(MAILNAMES + "/a.b/..", 2));
    EXPECT_TRUE(isNamesDeep("/srv/x", 2));
    EXPECT_FALSE(isNamesDeep(std::string("/srv/\0", 6), 2));
}

}  // namespace
}  // namespace corvo::test
