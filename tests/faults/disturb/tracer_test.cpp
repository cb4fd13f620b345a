#include "tests/faults/disturb/tracer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/faults/world/world.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::ptrdiff_t countOf(const std::string& words, const std::string& text) {
    std::ptrdiff_t count = 0;
    for (std::size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
        ++count;
    return count;
}

/// Of the first call of a kind.
Position positionOf(long number, const std::vector<Call>& calls = callsOfRun()) {
    return std::find_if(calls.begin(), calls.end(),
                        [number](const Call& call) { return call.number == number; })
        ->position;
}

class TracerTest : public test::SandboxTest {
protected:
    TracerTest() { world.reset(Start::damaged); }

    Tree storageKilledAt(const Position& position, Moment moment) {
        world.reset(Start::damaged);
        (void)killAt(position, moment);
        return readTree(test::MAILNAMES);
    }

    /// Of a run that has files to write.
    std::vector<Call> callsOfRepair() {
        world.reset(Start::damaged);
        std::vector<Call> calls = callsOfRun();
        world.reset(Start::damaged);
        return calls;
    }

    World world;
};

TEST_F(TracerTest, CountingBeginsWithMain) {
    const std::vector<Call> calls = callsOfRun();
    EXPECT_EQ(calls.front().number, SYS_openat);
    EXPECT_EQ(calls.back().number, SYS_exit_group);
    EXPECT_FALSE(calls.back().mayFail);
}

TEST_F(TracerTest, CallsHaveTheSameNumbersInEveryRun) {
    const auto numbers = [] {
        std::map<Position, long> found;
        for (const Call& call : callsOfRun())
            if (call.position.look == 0)
                found[call.position] = call.number;
        return found;
    };
    (void)undisturbedRun();
    world.reset(Start::restored);
    const auto first = numbers();
    world.reset(Start::restored);
    EXPECT_EQ(first, numbers());
}

TEST_F(TracerTest, ARunKilledAtItsFirstCallHasDoneNothing) {
    const Snapshot before = Snapshot::take();
    const FaultyRun run = killAt({1, 0}, Moment::entry);
    EXPECT_TRUE(run.met);
    EXPECT_EQ(run.outcome.status, 137);
    EXPECT_EQ(Snapshot::take().storage, before.storage);
}

TEST_F(TracerTest, ACallIsExecutedBeforeTheKillAtItsExitOnly) {
    const Position step = positionOf(SYS_renameat);
    const Tree old = storageKilledAt(step, Moment::entry);
    EXPECT_EQ(storageKilledAt(step, Moment::exit).size(), old.size() - 1);
}

TEST_F(TracerTest, AnErrorReachesTheProgramAndTheCallIsNotExecuted) {
    const FaultyRun run = failAt(positionOf(SYS_fsync, callsOfRepair()), EIO);
    EXPECT_TRUE(run.met);
    EXPECT_EQ(run.outcome.status, 0);
    EXPECT_THAT(run.outcome.err, HasSubstr("unable to commit written data to file"));
    EXPECT_THAT(run.outcome.err, HasSubstr("System error 5"));
}

bool isFlush(const Call& call) {
    return call.number == SYS_fsync;
}

TEST_F(TracerTest, AsManyFurtherCallsOfAKindFail) {
    const std::vector<Call> calls = callsOfRepair();
    const Position first = positionOf(SYS_fsync, calls);
    const auto failures = [&](std::size_t further) {
        world.reset(Start::damaged);
        const std::string err = failFrom(first, EIO, further, isFlush).outcome.err;
        return countOf("unable to commit written data to file", err);
    };
    EXPECT_EQ(failures(0), 1);
    EXPECT_EQ(failures(2), 3);
    EXPECT_EQ(failures(SIZE_MAX),
              countOf("DEBUG setMailboxQuota", world.golden(Start::damaged).err));
}

TEST_F(TracerTest, CallsTellWhatTheyOpenAndWhatTheySay) {
    std::size_t creations = 0;
    std::size_t messages = 0;
    for (const Call& call : callsOfRun()) {
        const bool isOpen = call.number == SYS_openat || call.number == SYS_openat2;
        EXPECT_TRUE(isOpen || call.openFlags == 0);
        creations += (call.openFlags & O_CREAT) != 0 && call.changes ? 1 : 0;
        messages += call.speaks ? 1 : 0;
    }
    EXPECT_GT(creations, 8U);
    EXPECT_GT(messages, 0U);
}

TEST_F(TracerTest, APointBehindTheEndIsNotMet) {
    const FaultyRun run = failAt({1'000'000, 0}, EIO);
    EXPECT_FALSE(run.met);
    EXPECT_EQ(run.outcome.status, 0);
    EXPECT_EQ(run.outcome.err, world.golden(Start::damaged).err);
}

TEST_F(TracerTest, WhatAFailedCallWasToReadIsTold) {
    const auto unreadAt = [&](long number) {
        const Position first = positionOf(number);
        world.reset(Start::damaged);
        return failAt(first, EIO).unread;
    };
    EXPECT_THAT(unreadAt(SYS_openat), ElementsAre("/dev/null"));
    EXPECT_THAT(unreadAt(SYS_read), ElementsAre(StartsWith("/etc/")));
    EXPECT_THAT(unreadAt(SYS_mkdirat), IsEmpty());
}

TEST_F(TracerTest, AnObserverSeesTheCallThatComesNext) {
    std::vector<long> seen;
    observeRun([&](const Call& next) {
        if (next.position.look == 0)
            seen.push_back(next.number);
    });
    world.reset(Start::damaged);
    std::vector<long> untilTheTenth;
    observeUntil({10, 0}, [&](const Call& next) { untilTheTenth.push_back(next.number); });
    EXPECT_EQ(untilTheTenth, std::vector<long>(seen.begin(), seen.begin() + 8));
    world.reset(Start::damaged);
    std::vector<long> made;
    for (const Call& call : callsOfRun())
        if (call.position.look == 0)
            made.push_back(call.number);
    made.erase(made.begin());
    EXPECT_EQ(seen, made);
}

}  // namespace
}  // namespace corvo::faults
