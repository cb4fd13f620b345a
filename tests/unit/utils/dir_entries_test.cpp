#include "utils/dir_entries.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string FOLDER = MAILNAMES + "/folder";

static_assert(!std::is_copy_constructible_v<DirEntries> && !std::is_copy_assignable_v<DirEntries>);

class DirEntriesTest : public SandboxTest {
protected:
    DirEntriesTest() { makeDirectory(FOLDER); }

    static UniqueFd open(const std::string& path = FOLDER) {
        return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }

    static std::vector<std::string> sortedNames(DirEntries& entries) {
        std::vector<std::string> names;
        while (const auto* const entry = entries.next())
            names.emplace_back(entry->d_name);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(DirEntriesTest, GivesAllButTheDirectoryItselfAndItsParent) {
    const std::vector<std::string> names = {"...", "..odd", ".hidden", "a", std::string(255, 'x')};
    for (const std::string& name : names)
        writeFile(FOLDER + "/" + name, "");
    DirEntries entries(open());
    ASSERT_TRUE(entries);
    EXPECT_EQ(sortedNames(entries), names);
    EXPECT_EQ(errno, 0);
}

TEST_F(DirEntriesTest, GivesMoreThanOneReadHolds) {
    std::vector<std::string> names;
    for (int i = 1000; i < 3000; ++i)
        names.push_back(std::to_string(i) + std::string(60, 'n'));
    for (const std::string& name : names)
        writeFile(FOLDER + "/" + name, "");
    DirEntries entries(open());
    EXPECT_EQ(sortedNames(entries), names);
}

TEST_F(DirEntriesTest, TellsTheTypeOfAnEntry) {
    makeDirectory(FOLDER + "/sub");
    DirEntries entries(open());
    const auto* const entry = entries.next();
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN);
}

TEST_F(DirEntriesTest, EndsAgainAndAgain) {
    DirEntries entries(open());
    for (int i = 0; i < 3; ++i) {
        errno = EIO;
        EXPECT_EQ(entries.next(), nullptr);
        EXPECT_EQ(errno, 0);
    }
}

TEST_F(DirEntriesTest, RemovedDirectoryHasEnded) {
    DirEntries entries(open());
    ASSERT_EQ(::rmdir(FOLDER.c_str()), 0);
    EXPECT_EQ(entries.next(), nullptr);
    EXPECT_EQ(errno, 0);
}

TEST_F(DirEntriesTest, FileHasNoEntriesAndSaysSo) {
    writeFile(FOLDER + "/file", "");
    DirEntries entries(UniqueFd(::open((FOLDER + "/file").c_str(), O_RDONLY | O_CLOEXEC)));
    EXPECT_EQ(entries.next(), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(DirEntriesTest, DescriptorIsTheDirectoryAndIsClosedInTheEnd) {
    const int before = openDescriptors();
    {
        const DirEntries entries(open());
        struct stat seen = {};
        ASSERT_EQ(::fstat(entries.descriptor(), &seen), 0);
        EXPECT_EQ(seen.st_ino, inodeOf(FOLDER));
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DirEntriesTest, GoesOnWhereItWasAfterAMove) {
    writeFile(FOLDER + "/a", "");
    writeFile(FOLDER + "/b", "");
    DirEntries first(open());
    const std::string name = first.next()->d_name;
    DirEntries second(std::move(first));
    const std::string other = second.next()->d_name;
    EXPECT_EQ(name < other ? name + other : other + name, "ab");
    EXPECT_EQ(second.next(), nullptr);
}

TEST_F(DirEntriesTest, ReadersAtTheSameTimeDoNotDisturbEachOther) {
    writeFile(FOLDER + "/a", "");
    makeDirectory(FOLDER + "/sub");
    writeFile(FOLDER + "/sub/b", "");
    { const DirEntries gone(open()); }  // leaves its buffer to the next one
    DirEntries outer(open());
    const std::string first = outer.next()->d_name;
    for (int i = 0; i < 2; ++i) {
        DirEntries inner(open(FOLDER + "/sub"));
        EXPECT_EQ(sortedNames(inner), std::vector<std::string>{"b"});
    }
    const std::string second = outer.next()->d_name;
    EXPECT_EQ(first < second ? first + second : second + first, "asub");
    EXPECT_EQ(outer.next(), nullptr);
}

TEST_F(DirEntriesTest, HoldsNoneForNoDirectory) {
    errno = ELOOP;
    const DirEntries entries{UniqueFd()};
    EXPECT_FALSE(entries);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(DirEntriesTest, HoldsNoneWithoutMemory) {
    requireExhaustibleMemory();
    const ProcessResult result = runForked([] {
        const DirEntries other(open());  // so that no buffer is left from an earlier reader
        UniqueFd directory = open();
        exhaustMemory();
        const DirEntries entries(std::move(directory));
        ::_exit(!entries && errno == ENOMEM ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace corvo::test
