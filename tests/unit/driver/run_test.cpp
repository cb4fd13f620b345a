#include "driver/run.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "lib/db++/error.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

int doMain(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    const int count = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    return do_main(count, argv.data());
}

class RunTest : public SandboxTest {
protected:
    RunTest() { installMailServer(); }
};

TEST_F(RunTest, AnUnknownArgumentGivesTheUsageOnStandardError) {
    StreamCapture streams;
    EXPECT_EQ(doMain({"/sbin/rebuild", "--quick"}), 1);
    EXPECT_EQ(streams.err(), "Usage: /sbin/rebuild [--fast | --handlers-only | --all]\n");
    EXPECT_EQ(streams.out(), "");
}

TEST_F(RunTest, WithoutAnyArgumentListEverythingIsRestored) {
    PanelDatabase panel;
    panel.domain("example.com");
    EXPECT_EQ(doMain({}), 0);
    EXPECT_EQ(modeOf(MAILNAMES + "/example.com"), "0750");
}

TEST_F(RunTest, StepsThatFailDoNotChangeTheStatus) {
    PanelDatabase panel;
    panel.execute("DROP TABLE domains, misc");
    std::filesystem::remove_all("/var/lib/corvo/mail/handlers");
    StreamCapture streams;

    EXPECT_EQ(doMain({"mail_rebuild"}), 0);

    const std::string noTable = "MySQL error 1146: Table '" + panel.name() + ".";
    const std::string noParameter =
        "Warning: MySQL Error on Mail Authentication Type query: " + noTable +
        "misc' doesn't exist executing query: SELECT    val  FROM misc    WHERE param='";
    const std::string unableToOpen =
        "Unable to open database " + HANDLERS + ": unable to open database file\n";
    const std::string warnings =
        "Warning: MySQL Query error on top Domains cycle: " + noTable +
        "domains' doesn't exist executing query: SELECT    d.id AS id, LOWER(d.name) AS name,  "
        " s.status AS status,   p.value AS nonExisting FROM domains d, DomainServices s, Parameters"
        " p    WHERE d.id=s.dom_id AND s.type='mail'      AND p.id=s.parameters_id AND"
        " p.parameter='nonexist_mail', ignored\n" +
        noParameter + "reject_mail_when_overquota_with_permfail', ignored\n" + noParameter +
        "reject_mail_when_overquota', ignored\n" + unableToOpen + unableToOpen +
        "Unable to add check-quota mail handler.\n";
    EXPECT_EQ(streams.err(), warnings +
                                 " restoring mail rejection when mailbox is over quota failed"
                                 " (Restore check-quota mail handler), ignored\n");
    EXPECT_EQ(streams.out(), warnings);
}

TEST_F(RunTest, HoldsNoLockOfItsOwn) {
    const PanelDatabase panel;
    const UniqueFd other(::open("/run/lock/files", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(doMain({"mail_rebuild", "--all"}), 0);
}

TEST_F(RunTest, AFullRunDoesWithoutTheLockFolder) {
    const PanelDatabase panel;
    std::filesystem::remove("/run/lock/files");
    EXPECT_EQ(doMain({"mail_rebuild", "--all"}), 0);
}

TEST_F(RunTest, AConnectionThatCannotBeOpenedIsThrown) {
    StreamCapture streams;
    writeFile("/etc/vhc/vhc.conf", "MYSQL_SOCKET /run/no.sock\n");
    EXPECT_THROW(doMain({"mail_rebuild"}), mysql::mError);
    const std::string logged =
        "Unable to open admin password file: No such file or directory\n"
        "System error 2: No such file or directory\n";
    EXPECT_EQ(streams.err(), logged);
    EXPECT_EQ(streams.out(), logged);
}

}  // namespace
}  // namespace corvo::test
