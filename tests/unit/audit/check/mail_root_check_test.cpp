#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audit/check/checks.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;

const std::string ROOT_IS_RIGHT = "ok|mail names root|/var/qmail/mailnames|";
const std::string HOLDS_NONE =
    "warning|mail names root|/var/qmail/mailnames holds no domain, though the panel has some|"
    "see that the right file system is mounted: findmnt -T /var/qmail/mailnames";

class MailRootCheckTest : public CheckTest {
protected:
    static Results results(mysql::Connection* panel = nullptr) {
        return resultsOf([&](const auto& sink) { audit::checkMailRoot(sink, panel); });
    }
};

TEST_F(MailRootCheckTest, OneThatIsThereAndOpenIsRight) {
    EXPECT_THAT(results(), ElementsAre(ROOT_IS_RIGHT));
}

TEST_F(MailRootCheckTest, AMissingOneIsAProblem) {
    fs::remove(MAILNAMES);
    EXPECT_THAT(results(),
                ElementsAre("problem|mail names root|/var/qmail/mailnames: No such file or "
                            "directory|look at it by hand, or check as a user who may read it"));
}

TEST_F(MailRootCheckTest, AMountThatIsMissingIsAProblem) {
    writeFile("/etc/fstab", "# the mail\n/dev/sdb1 /var/qmail/mailnames ext4 defaults 0 2\n");
    EXPECT_THAT(results(), ElementsAre("problem|mail names root|/var/qmail/mailnames is not "
                                       "mounted, though /etc/fstab has it|mount "
                                       "/var/qmail/mailnames"));
}

TEST_F(MailRootCheckTest, AMountThatIsThereIsRight) {
    writeFile("/etc/fstab",
              "/dev/sda1 / ext4 defaults 0 1\n/dev/sdb1 /var/qmail ext4 defaults 0 2\n"
              "/dev/sdc1 /elsewhere ext4 defaults 0 2\n");
    EXPECT_THAT(results(), ElementsAre(ROOT_IS_RIGHT));
}

TEST_F(MailRootCheckTest, AReadOnlyOneIsAProblem) {
    const ReadOnlyDisk disk(MAILNAMES);
    EXPECT_THAT(results(),
                ElementsAre("problem|mail names root|/var/qmail/mailnames is mounted read-only: a "
                            "run can repair nothing|see why (findmnt -T /var/qmail/mailnames), "
                            "and mount it anew, writable"));
}

TEST_F(MailRootCheckTest, ADirectoryThatIsClosedToTheAccountIsAProblem) {
    fs::permissions(MAILNAMES, fs::perms(0700));
    EXPECT_THAT(results(),
                ElementsAre("problem|mail names root|/var/qmail/mailnames is closed to popuser: "
                            "0:0 0700|chmod a+x /var/qmail/mailnames"));
}

TEST_F(MailRootCheckTest, TheAccountsGroupMayBeLetInAlone) {
    writeFile("/var/qmail/mailnames/x", "");
    ASSERT_EQ(::chown(MAILNAMES.c_str(), 0, POPUSER_GID), 0);
    fs::permissions(MAILNAMES, fs::perms(0710));
    EXPECT_THAT(results(), ElementsAre(ROOT_IS_RIGHT));
}

TEST_F(MailRootCheckTest, ADirectoryThatOthersMayChangeIsWarnedOf) {
    chownToPopuser(MAILNAMES);
    EXPECT_THAT(results(),
                ElementsAre("warning|mail names root|/var/qmail/mailnames can be changed by "
                            "others: 1031:1032 0755|chown root /var/qmail/mailnames; chmod go-w "
                            "/var/qmail/mailnames"));
}

TEST_F(MailRootCheckTest, TheWayBehindALinkIsLookedAt) {
    makeDirectory("/var/lib/corvo/disk/mail");
    fs::permissions("/var/lib/corvo/disk", fs::perms(0700));
    fs::remove(MAILNAMES);
    makeLink("/var/lib/corvo/disk/mail", MAILNAMES);
    EXPECT_THAT(results(), ElementsAre("problem|mail names root|/var/lib/corvo/disk is closed to "
                                       "popuser: 0:0 0700|chmod a+x /var/lib/corvo/disk"));
}

TEST_F(MailRootCheckTest, ARootWithoutDomainsIsWarnedOfWhereThePanelHasSome) {
    PanelDatabase panel;
    mysql::Connection connection(/*open_now=*/true);
    writeFile(DEFAULT_DELIVERY, DELIVERY_LINE);
    EXPECT_THAT(results(&connection), ElementsAre(ROOT_IS_RIGHT));
    panel.domain("example.com");
    EXPECT_THAT(results(&connection), ElementsAre(HOLDS_NONE));
    makeDirectory(MAILNAMES + "/example.com");
    EXPECT_THAT(results(&connection), ElementsAre(ROOT_IS_RIGHT));
}

TEST_F(MailRootCheckTest, LookingLeavesTheTimesOfTheRoot) {
    PanelDatabase panel;
    mysql::Connection connection(/*open_now=*/true);
    const timespec longAgo[] = {{1, 0}, {2, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, MAILNAMES.c_str(), longAgo, 0), 0);
    (void)results(&connection);
    struct stat seen = {};
    ASSERT_EQ(::stat(MAILNAMES.c_str(), &seen), 0);
    EXPECT_EQ(seen.st_atim.tv_sec, 1);
}

}  // namespace
}  // namespace corvo::test
