#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/support/panel.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

class RoomCheckTest : public CheckTest {
protected:
    static Results results(mysql::Connection* panel = nullptr) {
        return resultsOf([&](const auto& sink) { audit::checkRoom(sink, panel); });
    }
};

TEST_F(RoomCheckTest, EachMissingHomeTakesItsEntries) {
    PanelDatabase panel;
    auto domain = panel.domain("Example.com");
    domain.mailname("Info");
    domain.mailname("office");
    domain.mailname("team");
    const SmallDisk disk(MAILNAMES, 2000, 1050);
    makeDirectory(MAILNAMES + "/example.com/info");
    mysql::Connection connection(/*open_now=*/true);
    EXPECT_THAT(results(&connection),
                ElementsAre("warning|room for mail|free: 2000 blocks of 4096 bytes and 1047 "
                            "inodes; 2 missing homes take 48 of each|make room, and leave 1000 "
                            "of each for what runs beside"));
    panel.execute("DELETE FROM mail WHERE mail_name='team'");
    EXPECT_THAT(results(&connection),
                ElementsAre("ok|room for mail|free: 2000 blocks of 4096 bytes and 1047 inodes; 1 "
                            "missing homes take 24 of each|"));
}

TEST_F(RoomCheckTest, AFullDiskIsWarnedOf) {
    const SmallDisk disk(MAILNAMES, 1500, 2000);
    disk.fill(600);
    EXPECT_THAT(results(),
                ElementsAre("warning|room for mail|free: 600 blocks of 4096 bytes and 1998 "
                            "inodes; 0 missing homes take 0 of each|make room, and leave 1000 of "
                            "each for what runs beside"));
}

TEST_F(RoomCheckTest, AMissingRootIsAProblem) {
    std::filesystem::remove(MAILNAMES);
    EXPECT_THAT(results(),
                ElementsAre("problem|room for mail|/var/qmail/mailnames: No such file or "
                            "directory|look at it by hand, or check as a user who may read it"));
}

}  // namespace
}  // namespace corvo::test
