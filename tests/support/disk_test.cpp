#include "tests/support/disk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string DIR_PATH = "/var/qmail/disk";

class DiskTest : public SandboxTest {};

int errorOfWriting(const std::string& name, std::size_t bytes) {
    try {
        writeFile(DIR_PATH + "/" + name, std::string(bytes, 'x'));
    } catch (const std::system_error& failure) {
        return failure.code().value();
    }
    return 0;
}

TEST_F(DiskTest, SmallDiskHasRoomForItsPages) {
    const SmallDisk disk(DIR_PATH, 4);
    EXPECT_EQ(errorOfWriting("file", 4 * SmallDisk::PAGE), 0);
    EXPECT_EQ(errorOfWriting("empty", 0), 0);
    EXPECT_EQ(errorOfWriting("next", 1), ENOSPC);
}

TEST_F(DiskTest, SmallDiskIsFilledUpToWhatIsLeft) {
    const SmallDisk disk(DIR_PATH, 4);
    EXPECT_EQ(errorOfWriting("old", 1), 0);
    disk.fill(1);
    EXPECT_EQ(errorOfWriting("file", SmallDisk::PAGE), 0);
    EXPECT_EQ(errorOfWriting("next", 1), ENOSPC);
}

TEST_F(DiskTest, SmallDiskHasRoomForItsEntries) {
    const SmallDisk disk(DIR_PATH, 0, 3);
    EXPECT_EQ(errorOfWriting("a", 100000), 0);
    EXPECT_EQ(errorOfWriting("b", 0), 0);
    EXPECT_EQ(errorOfWriting("c", 0), ENOSPC);
}

TEST_F(DiskTest, SmallDiskIsGoneWithItsObject) {
    writeFile(DIR_PATH + "/file", "");
    {
        const SmallDisk disk(DIR_PATH, 4);
        EXPECT_EQ(listTree(DIR_PATH), "");
    }
    EXPECT_EQ(listTree(DIR_PATH), "- 0644 0:0 file 0\n");
}

TEST_F(DiskTest, ReadOnlyDiskCanBeReadOnly) {
    writeFile(DIR_PATH + "/file", "kept");
    {
        const ReadOnlyDisk disk(DIR_PATH);
        EXPECT_EQ(errorOfWriting("file", 1), EROFS);
        EXPECT_EQ(contentsOf(DIR_PATH + "/file"), "kept");
    }
    EXPECT_EQ(errorOfWriting("file", 1), 0);
}

}  // namespace
}  // namespace corvo::test
