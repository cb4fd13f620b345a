#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "tests/unit/utils/line_file_fixture.h"
#include "utils/file_lock.h"
#include "utils/guards.h"
#include "utils/line_file.h"

namespace corvo::test::lines {
namespace {

TEST_F(LineFileTest, AppendedLineContinuesNoOther) {
    const struct {
        std::string before;
        std::string after;
    } cases[] = {
        {"", "new\n"},
        {"\n", "\nnew\n"},
        {"old\n", "old\nnew\n"},
        {"old", "old\nnew\n"},
        {"old\n\n", "old\n\nnew\n"},
        {"old\nwithin", "old\nwithin\nnew\n"},
        {"old\r", "old\r\nnew\n"},
        {std::string("old\0", 4), std::string("old\0\nnew\n", 9)},
    };
    for (const auto& [before, after] : cases)
        for (const char* line : {"new", "new\n"}) {
            SCOPED_TRACE(before);
            writeFile(PATH, before, STRANGER_UID, STRANGER_GID, 0640);
            EXPECT_EQ(file_append_line(PATH.c_str(), line), 0);
            EXPECT_EQ(contentsOf(PATH), after);
            EXPECT_EQ(modeOf(PATH) + " " + ownerOf(PATH), "0640 1041:1042");
        }
}

TEST_F(LineFileTest, LineAppendedToAMissingFileCreatesIt) {
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 0);
    EXPECT_EQ(contentsOf(PATH), "new\n");
    EXPECT_EQ(modeOf(PATH) + " " + ownerOf(PATH), "0644 0:0");
}

TEST_F(LineFileTest, AppendedLineComesWithTheEndOfTheOneBeforeInOneWrite) {
    writeFile(PATH, "old");
    std::vector<std::string> seen;
    writes = &seen;
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 0);
    writes = nullptr;
    EXPECT_EQ(seen, std::vector<std::string>{"\nnew\n"});
}

TEST_F(LineFileTest, LineThatCannotBeAppendedLeavesTheOneBeforeAsItIs) {
    const SmallDisk disk(HOME, 4);
    const std::string page(4096, 'x');
    writeFile(PATH, page);
    disk.fill();
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              withError("Unable to close file " + PATH + ": No space left on device\n", ENOSPC));
    EXPECT_EQ(contentsOf(PATH), page);
}

TEST_F(LineFileTest, FileWhoseEndCannotBeReadIsNotAppendedTo) {
    writeFile(PATH, "old");
    isLastByteUnreadable = true;
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 1);
    isLastByteUnreadable = false;
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(message(), withError("Unable to read file " + PATH + ": Input/output error\n", EIO));
    EXPECT_EQ(contentsOf(PATH), "old");
}

TEST_F(LineFileTest, TwoProcessesLoseNoLine) {
    haveFile("");
    const auto work = [](const char* line) {
        int failures = 0;
        for (int i = 0; i < 100; ++i) {
            failures += change({line}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND);
            failures += change({line}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND);
            failures += change({"nothing"}, FILE_STRINGS_REMOVE, 1);
        }
        return failures;
    };
    SecondProcess other([&](const SecondProcess::Ready& ready) {
        ready();
        if (work("b") != 0)
            ::_exit(1);
    });
    EXPECT_EQ(work("a"), 0);
    EXPECT_TRUE(other.endedWell());
    const std::string contents = contentsOf(PATH);
    EXPECT_EQ(std::count(contents.begin(), contents.end(), 'a'), 200);
    EXPECT_EQ(std::count(contents.begin(), contents.end(), 'b'), 200);
    EXPECT_EQ(contents.size(), 800U);
}

TEST_F(LineFileTest, StringsAreWrittenAsLines) {
    const char* const list[] = {"a", "b\n", "", "\n", nullptr};
    const corvo::UniqueFile stream(std::fopen((HOME + "/out").c_str(), "we"));
    EXPECT_EQ(write_strings(stream.get(), list), 0);
    (void)std::fflush(stream.get());
    EXPECT_EQ(contentsOf(HOME + "/out"), "a\nb\n\n\n");
}

/// Takes text, but no end of a line.
ssize_t refuseNewlines(void* /*cookie*/, const char* block, std::size_t size) {
    if (std::memchr(block, '\n', size) == nullptr)
        return static_cast<ssize_t>(size);
    errno = ENOSPC;
    return 0;
}

TEST_F(LineFileTest, ShortWriteOfTheAddedNewlineIsAFailure) {
    const char* const list[] = {"a", nullptr};
    const corvo::UniqueFile stream(
        ::fopencookie(nullptr, "w", {nullptr, refuseNewlines, nullptr, nullptr}));
    (void)std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(write_strings(stream.get(), list), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LineFileTest, ShortWriteIsAFailure) {
    const char* const list[] = {"a", nullptr};
    const corvo::UniqueFile stream(std::fopen("/dev/full", "we"));
    (void)std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(write_strings(stream.get(), list), -1);
    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
}  // namespace corvo::test::lines
