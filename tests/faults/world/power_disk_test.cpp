#include "tests/faults/world/power_disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/power_judge.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

/// As part of a test's name.
static void PrintTo(const FileSystem& fileSystem, std::ostream* stream) {
    *stream << fileSystem.name;
}

namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Not;

class PowerDiskTest : public test::SandboxTest, public ::testing::WithParamInterface<FileSystem> {
protected:
    void SetUp() override {
        const std::string obstacle = obstacleTo(GetParam());
        if (!obstacle.empty())
            GTEST_SKIP() << obstacle;
    }
};

TEST_P(PowerDiskTest, ACutLeavesWhatWasFlushedAndNothingElse) {
    const PowerDisk disk(GetParam());
    test::makeDirectory(test::MAILNAMES);
    test::writeFile(test::MAILNAMES + "/kept", "on the disk");
    disk.flush();
    test::writeFile(test::MAILNAMES + "/lost", "in memory");
    const PowerDisk::Found found = disk.cut();
    EXPECT_EQ(found.damage, "");
    EXPECT_THAT(found.snapshot.storage, Contains(Key("kept")));
    EXPECT_EQ(found.snapshot.storage.at("kept").content, "on the disk");
    EXPECT_THAT(found.snapshot.storage, Not(Contains(Key("lost"))));
    disk.flush();
    EXPECT_EQ(disk.cut().snapshot.storage.at("lost").content, "in memory");
}

TEST_P(PowerDiskTest, NothingIsLeftMountedBehindIt) {
    { const PowerDisk disk(GetParam()); }
    EXPECT_FALSE(test::exists("/run/power/disk"));
    EXPECT_TRUE(test::exists(test::MAILNAMES));
}

TEST_P(PowerDiskTest, ARunThatIsFlushedOutlivesAPowerCut) {
    World world;
    const PowerDisk disk(GetParam());
    const Golden& golden = world.golden(Start::damaged);
    world.reset(Start::damaged);
    disk.flush();
    EXPECT_EQ(undisturbedRun().status, 0);
    disk.flush();
    PowerDisk::Found found = disk.cut();
    EXPECT_THAT(judgeCutAfterEnd(golden, {found.snapshot, found.damage}), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(FileSystems, PowerDiskTest, ::testing::ValuesIn(fileSystems()),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace corvo::faults
