#include "driver/carried_forwards.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "utils/system_error.h"

namespace corvo::test {
namespace {

const std::string HOME = MAILNAMES + "/example.com/info";
const std::string DOTQMAIL = HOME + "/.qmail";
const std::string LOCKS = "/run/lock/files";
const std::string NO_MEMORY =
    "Unable to drop forwards from " + DOTQMAIL + ": Cannot allocate memory";

class CarriedForwardsTest : public LoggingTest {
protected:
    CarriedForwardsTest() {
        installMailServer();
        makeDirectory(HOME);
    }

    static void write(const std::string& text) {
        writeFile(DOTQMAIL, text, POPUSER_UID, POPUSER_GID, 0600);
    }

    void restoreGroupOf(const std::string& lines) {
        write("| true\n" + lines);
        forwards.restore(mailname, false);
    }

    // The lines behind the reset line.
    static std::string forwardsThere() {
        const std::string text = contentsOf(DOTQMAIL);
        EXPECT_TRUE(text.starts_with("| true\n")) << text;
        return text.substr(text.find('\n') + 1);
    }

    static std::pair<ino_t, long> identity() {
        struct stat seen = {};
        EXPECT_EQ(::stat(DOTQMAIL.c_str(), &seen), 0);
        return {seen.st_ino, seen.st_ctim.tv_nsec};
    }

    const mail::Mailname mailname{"example.com", "info"};
    CarriedForwards forwards;
};

TEST_F(CarriedForwardsTest, ForwardsStayUntilTheMailNameIsLeft) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    EXPECT_EQ(forwardsThere(), "&a@b.c\n&d@e.f\n");
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "");
}

TEST_F(CarriedForwardsTest, NamedOneStandsBehindThoseNamedBeforeAndInFrontOfTheOthers) {
    restoreGroupOf("&a@b.c\n&d@e.f\n&g@h.i\n");
    EXPECT_TRUE(forwards.place("g@h.i"));
    EXPECT_EQ(forwardsThere(), "&g@h.i\n&a@b.c\n&d@e.f\n");
    EXPECT_TRUE(forwards.place("new@b.c"));
    EXPECT_EQ(forwardsThere(), "&g@h.i\n&new@b.c\n&a@b.c\n&d@e.f\n");
    EXPECT_TRUE(forwards.place("d@e.f"));
    EXPECT_EQ(forwardsThere(), "&g@h.i\n&new@b.c\n&d@e.f\n&a@b.c\n");
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&g@h.i\n&new@b.c\n&d@e.f\n");
}

TEST_F(CarriedForwardsTest, FileInWhichAllIsNamedInItsOrderIsNotWritten) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    const auto before = identity();
    EXPECT_TRUE(forwards.place("a@b.c"));
    EXPECT_TRUE(forwards.place("d@e.f"));
    forwards.leave();
    EXPECT_EQ(identity(), before);
}

TEST_F(CarriedForwardsTest, NamedOneIsNotDroppedWherePlacingItFailed) {
    restoreGroupOf("&a@b.c\n&d@e.f\n&g@h.i\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_FALSE(forwards.place("d@e.f"));
    makeDirectory(LOCKS);
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&d@e.f\n");
}

TEST_F(CarriedForwardsTest, AfterOneThatWasAddedAtTheEndNoneIsPlacedInFrontOfIt) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_FALSE(forwards.place("new@b.c"));
    makeDirectory(LOCKS);
    write(contentsOf(DOTQMAIL) + "&new@b.c\n");
    EXPECT_FALSE(forwards.place("d@e.f"));
    write(contentsOf(DOTQMAIL) + "&d@e.f\n");
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&new@b.c\n&d@e.f\n");
}

TEST_F(CarriedForwardsTest, OneThatWasAddedTwiceStandsOnceEvenWhereAllWereNamed) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_FALSE(forwards.place("a@b.c"));
    EXPECT_FALSE(forwards.place("d@e.f"));
    makeDirectory(LOCKS);
    write(contentsOf(DOTQMAIL) + "&a@b.c\n");
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&d@e.f\n&a@b.c\n");
}

TEST_F(CarriedForwardsTest, NextMailNameIsInOrderAgain) {
    restoreGroupOf("&a@b.c\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_FALSE(forwards.place("a@b.c"));
    makeDirectory(LOCKS);
    forwards.leave();
    restoreGroupOf("&a@b.c\n");
    EXPECT_TRUE(forwards.place("a@b.c"));
}

TEST_F(CarriedForwardsTest, RunsOverAFileThatCannotBeReplacedListNoForwardTwice) {
    const std::string old = "| true\n&a@b.c\n&d@e.f\n";
    write(old);
    makeDirectory(DOTQMAIL + ".tmp");
    for (int run = 0; run < 3; ++run) {
        ::chmod(DOTQMAIL.c_str(), 0644);
        EXPECT_THROW(forwards.restore(mailname, false), SystemError);
        EXPECT_EQ(streams.both(), "Unable to open '" + DOTQMAIL + "': Is a directory\n");
        forwards.name(mailname, "a@b.c");
        forwards.name(mailname, "d@e.f");
        forwards.leave();
        EXPECT_EQ(contentsOf(DOTQMAIL), old);
    }
}

TEST_F(CarriedForwardsTest, OneThatCanOnlyBeAddedMultipliesNoOther) {
    const std::string old = "| true\n&a@b.c\n&d@e.f\n";
    write(old);
    makeDirectory(DOTQMAIL + ".tmp");
    for (int run = 0; run < 3; ++run) {
        forwards.restore(mailname, false);
        for (const char* address : {"a@b.c", "new@b.c", "d@e.f"})
            forwards.name(mailname, address);
        forwards.leave();
        EXPECT_EQ(contentsOf(DOTQMAIL), old + "&new@b.c\n");
    }
    EXPECT_EQ(streams.err(), "Unable to open file " + DOTQMAIL + ".tmp: Is a directory\n");
}

TEST_F(CarriedForwardsTest, AddressWithoutMemoryForItsLineDropsNothingAndSaysSo) {
    requireExhaustibleMemory();
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    constexpr std::size_t MUCH = std::size_t{64} << 20;  // never from the heap
    const std::string address = "a@" + std::string(MUCH, 'b');
    expectChildLogs({NO_MEMORY}, [&] {
        limitMemory(memoryInUse() + MUCH / 2);
        EXPECT_FALSE(forwards.place(address));
        forwards.leave();
    });
    EXPECT_EQ(forwardsThere(), "&a@b.c\n&d@e.f\n");
}

TEST_F(CarriedForwardsTest, OneThatCannotBeAddedKeepsThoseThatNobodyNamesAnyMore) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_THROW(forwards.name(mailname, "a@b.c"), SystemError);
    EXPECT_TRUE(message().ends_with("Unable to drop forwards from " + DOTQMAIL +
                                    ": No such file or directory\n"));
    makeDirectory(LOCKS);
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&a@b.c\n&d@e.f\n");
}

TEST_F(CarriedForwardsTest, LastOneThatCannotBeAddedKeepsNothingElse) {
    restoreGroupOf("&a@b.c\n");
    std::filesystem::remove_all(LOCKS);
    EXPECT_THROW(forwards.name(mailname, "a@b.c"), SystemError);
    EXPECT_EQ(message().find("Unable to drop"), std::string::npos);
}

TEST_F(CarriedForwardsTest, OneThatIsNoAddressEndsTheGroupAndTheOthersAreDropped) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    forwards.name(mailname, "a@b.c");
    EXPECT_THROW(forwards.name(mailname, std::string("d@e.f\0", 6)), SystemError);
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&a@b.c\n");
}

TEST_F(CarriedForwardsTest, OneThatCannotBePlacedIsAdded) {
    restoreGroupOf("&a@b.c\n");
    forwards.leave();
    forwards.name(mailname, "d@e.f");
    EXPECT_EQ(forwardsThere(), "&d@e.f\n");
}

TEST_F(CarriedForwardsTest, WhatIsNoAddressIsNotPlaced) {
    restoreGroupOf("&a@b.c\n");
    EXPECT_FALSE(forwards.place("a"));
    EXPECT_FALSE(forwards.place("a@b.c\n| rm"));
    EXPECT_FALSE(forwards.place(std::string("a@b.c\0", 6)));
    EXPECT_EQ(forwardsThere(), "&a@b.c\n");
}

TEST_F(CarriedForwardsTest, NothingIsPlacedOrDroppedWhereTheFileWasNotRestored) {
    std::filesystem::remove(DEFAULT_DELIVERY);
    write("./Maildir/\n&a@b.c\n");
    EXPECT_THROW(forwards.restore(mailname, true), SystemError);
    message();
    EXPECT_FALSE(forwards.place("d@e.f"));
    forwards.leave();
    EXPECT_EQ(contentsOf(DOTQMAIL), "./Maildir/\n&a@b.c\n");
}

TEST_F(CarriedForwardsTest, NothingIsPlacedOrDroppedAfterLeaving) {
    restoreGroupOf("");
    forwards.leave();
    write("| true\n&a@b.c\n");
    EXPECT_FALSE(forwards.place("d@e.f"));
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&a@b.c\n");
}

TEST_F(CarriedForwardsTest, OnlyTheLinesCarriedOverAreDropped) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    write("# theirs\n&a@b.c\n&late@e.f\n&d@e.f\n&a@b.c.\n &a@b.c\n");
    forwards.leave();
    EXPECT_EQ(contentsOf(DOTQMAIL), "# theirs\n&late@e.f\n&a@b.c.\n &a@b.c\n");
}

TEST_F(CarriedForwardsTest, WhatCannotBeDroppedStaysAndIsToldInOneLine) {
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    EXPECT_TRUE(forwards.place("d@e.f"));
    std::filesystem::remove_all(LOCKS);
    forwards.leave();
    expectLogged({"Unable to drop forwards from " + DOTQMAIL + ": No such file or directory"});
    EXPECT_EQ(forwardsThere(), "&d@e.f\n&a@b.c\n");
}

TEST_F(CarriedForwardsTest, WhereAllWasNamedThereIsNothingToTell) {
    restoreGroupOf("&a@b.c\n");
    EXPECT_TRUE(forwards.place("a@b.c"));
    std::filesystem::remove_all(LOCKS);
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "&a@b.c\n");
}

TEST_F(CarriedForwardsTest, LeavingWithoutMemoryTellsItAndEndsWell) {
    requireExhaustibleMemory();
    restoreGroupOf("&a@b.c\n&d@e.f\n");
    expectChildLogs({NO_MEMORY}, [&] {
        exhaustMemory();
        forwards.leave();
    });
    EXPECT_EQ(forwardsThere(), "&a@b.c\n&d@e.f\n");
    forwards.leave();
    EXPECT_EQ(forwardsThere(), "");
}

}  // namespace
}  // namespace corvo::test
