#include "audit/check/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/general_log.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/skip.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class CheckMachineTest : public CheckTest {
protected:
    CheckMachineTest() {
        installMailServer();
        loadSample(panel);
        for (const char* domain : {"example.com", "xn--bcher-kva.example", "shop.example.net"})
            makeDirectory(MAILNAMES + "/" + domain);
    }

    // Those that are not ok.
    static Results faults() {
        Results found = resultsOf(audit::checkMachine);
        std::erase_if(found, [](const std::string& result) { return result.starts_with("ok|"); });
        return found;
    }

    ProcessTable processes;
    PanelDatabase panel;
};

TEST_F(CheckMachineTest, AHealthyMachineHasNoFaultButARedirectThatNobodyNeeds) {
    EXPECT_THAT(faults(), ElementsAre("warning|redirects of mail names that are no group|"
                                      "info@example.com: redirects that are not restored: 1|"
                                      "nothing, unless it should be a group: then make it one in "
                                      "the panel"));
    panel.execute("DELETE FROM mail_redir WHERE mn_id=11");
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(CheckMachineTest, EverythingIsLookedAtInAnOrderThatStays) {
    Results subjects;
    audit::checkMachine(
        [&](const audit::CheckResult& result) { subjects.push_back(result.subject); });
    EXPECT_THAT(
        subjects,
        ElementsAre("account popuser", "group popuser", "configuration", "mail names root setting",
                    "credentials", "password", "database socket", "panel database", "panel tables",
                    "panel contents", "delivery agent", "default delivery line", "lock folder",
                    "mail names root", "room for mail", "user database", "handlers database",
                    "hard links", "file systems in user space", "restorations", "deliveries",
                    "domain statuses", "domains passed over", "mail names without mail service",
                    "spellings of domains", "spellings of mail names", "names of domains",
                    "names of mail names", "characters of names", "domains in other letters",
                    "domains of the mail names root", "quotas of mail names", "default quotas",
                    "redirects of mail names that are no group", "redirects of groups"));
}

TEST_F(CheckMachineTest, OneConnectionServesAllStatements) {
    GeneralLog server(panel);
    (void)faults();
    EXPECT_THAT(server.statements(), Contains("1. SET NAMES utf8"));
    EXPECT_EQ(server.connections(), 1U);
}

TEST_F(CheckMachineTest, WithoutThePanelDatabaseItsRowsAreLeftOut) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    const Results found = faults();
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[2],
              "problem|panel rows|not looked at, without the panel database|check again when the "
              "panel database answers");
}

TEST_F(CheckMachineTest, NothingIsChanged) {
    const auto state = [] {
        return fingerprint("/var/qmail") + fingerprint("/var/lib/corvo") + fingerprint("/etc/vhc") +
               fingerprint("/run/lock");
    };
    const std::string before = state();
    (void)faults();
    EXPECT_EQ(state(), before);
}

TEST_F(CheckMachineTest, AUserWithoutRightsIsToldWhatCouldNotBeRead) {
#ifdef __SANITIZE_ADDRESS__
    skipTest("the sanitizer's look for leaks wants more rights at the end of the child");
#endif
    const ProcessResult child = resultsInChild(audit::checkMachine, [] {
        if (::setresgid(STRANGER_GID, STRANGER_GID, STRANGER_GID) != 0 ||
            ::setresuid(STRANGER_UID, STRANGER_UID, STRANGER_UID) != 0)
            ::_exit(1);
    });
    const std::string advice = "|look at it by hand, or check as a user who may read it\n";
    const Results problems = {
        "problem|credentials|/etc/vhc/private/dsn.ini: Permission denied" + advice,
        "problem|password|/etc/vhc/.vhc.shadow: Permission denied" + advice,
        "problem|panel database|not asked, without its credentials|check as a user who may read "
        "them\n",
        "problem|handlers database|" + HANDLERS + ": Permission denied" + advice};
    for (const std::string& problem : problems)
        EXPECT_THAT(child.out, HasSubstr(problem));
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.status, 0);
}

}  // namespace
}  // namespace corvo::test
