#include "tests/support/race.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

class RaceTest : public SandboxTest {};

TEST_F(RaceTest, RacerRunsItsStepAgainAndAgain) {
    const std::string trace = "/var/qmail/trace";
    writeFile(trace, "");
    const Racer racer([&] { writeFile(trace + std::to_string(namesIn("/var/qmail").size()), ""); });
    while (namesIn("/var/qmail").size() < 5) {
    }
}

TEST_F(RaceTest, ExchangedNamesHaveEachOthersContents) {
    writeFile("/var/qmail/one", "1");
    writeFile("/var/qmail/other", "2");
    exchange("/var/qmail/one", "/var/qmail/other");
    EXPECT_EQ(contentsOf("/var/qmail/one"), "2");
}

TEST_F(RaceTest, PlantedLinkIsPopusers) {
    writeFile("/var/qmail/file", "");
    plantLink("/var/qmail/target", "/var/qmail/file");
    EXPECT_EQ(listTree("/var/qmail"),
              "l 0777 1031:1031 file -> /var/qmail/target\nd 0755 0:0 mailnames\n");
}

TEST_F(RaceTest, RaceGoesOnUntilBothEndsWereSeen) {
    Outcomes seen;
    for (int i = 0; i < 300; ++i)
        seen.note(/*done=*/true);
    EXPECT_FALSE(seen.both());
    EXPECT_TRUE(seen.wantsMore());
    seen.note(/*done=*/false);
    EXPECT_TRUE(seen.both());
    EXPECT_FALSE(seen.wantsMore());
}

}  // namespace
}  // namespace corvo::test
