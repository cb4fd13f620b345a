#include "tests/support/sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class SandboxStateTest : public SandboxTest {};

TEST_F(SandboxStateTest, StartsWithEmptyStorage) {
    EXPECT_EQ(listTree("/var/qmail"), "d 0755 0:0 mailnames\n");
    EXPECT_EQ(listTree("/run"), "d 0755 0:0 lock\nd 0700 0:0 lock/files\n");
    EXPECT_EQ(listTree("/etc/vhc"), "");
    EXPECT_EQ(listTree("/var/lib/corvo"), "");
}

TEST_F(SandboxStateTest, IsEmptyAgainAfterAReset) {
    writeFile(MAILNAMES + "/left", "behind");
    writeFile("/etc/vhc/vhc.conf", "left behind");
    installDeliverquota();
    ASSERT_EQ(::chdir(MAILNAMES.c_str()), 0);

    resetSandbox();

    EXPECT_EQ(listTree("/var/qmail"), "d 0755 0:0 mailnames\n");
    EXPECT_EQ(listTree("/etc/vhc"), "");
    EXPECT_FALSE(exists("/usr/bin/deliverquota"));
}

TEST_F(SandboxStateTest, KnowsPopuserUntilItIsRemoved) {
    const struct passwd* account = ::getpwnam("popuser");
    ASSERT_NE(account, nullptr);
    EXPECT_EQ(account->pw_uid, POPUSER_UID);
    EXPECT_EQ(account->pw_gid, POPUSER_GID);

    removeUser("popuser");

    EXPECT_EQ(::getpwnam("popuser"), nullptr);
}

TEST_F(SandboxStateTest, IsSeenByProgramsThatATestRuns) {
    writeFile("/etc/vhc/vhc.conf", "inside");

    const ProcessResult cat = run({"cat", "/etc/vhc/vhc.conf"});

    EXPECT_EQ(cat.out, "inside");
    EXPECT_EQ(cat.status, 0);
}

TEST(ListTreeTest, TellsTypeModeOwnerSizeAndTarget) {
    resetSandbox();
    writeFile("/var/qmail/tree/file", "12345", POPUSER_UID, POPUSER_GID, 0640);
    makeLink("file", "/var/qmail/tree/link", STRANGER_UID);

    EXPECT_EQ(listTree("/var/qmail/tree"),
              "- 0640 1031:1032 file 5\nl 0777 1041:1041 link -> file\n");
}

TEST(StreamCaptureTest, KeepsTheStreamsApart) {
    StreamCapture streams;
    (void)std::fputs("to out", stdout);
    (void)std::fputs("to err", stderr);
    EXPECT_EQ(streams.out(), "to out");
    EXPECT_EQ(streams.err(), "to err");
    EXPECT_EQ(streams.out(), "");
}

TEST(StreamCaptureTest, FailsATestThatPrintsWhatItDidNotDeclare) {
    EXPECT_NONFATAL_FAILURE(
        {
            const StreamCapture streams;
            (void)std::fputs("a stray line\n", stderr);
        },
        "a stray line");
}

// The test fails on purpose, in a process of its own.
TEST(StreamCaptureTest, TakesNoFailureForOutput) {
    const ProcessResult result = runForked([] {
        StreamCapture streams;
        (void)std::fputs("output", stdout);
        ADD_FAILURE() << "a failure";
        EXPECT_EQ(streams.out(), "output");
        EXPECT_EQ(streams.err(), "");
    });
    EXPECT_THAT(result.out, HasSubstr("a failure"));
    EXPECT_THAT(result.out, Not(HasSubstr("output")));
}

TEST(RunTest, GivesBothStreamsAndTheStatus) {
    const ProcessResult result = run({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result.out, "out\n");
    EXPECT_EQ(result.err, "err\n");
    EXPECT_EQ(result.status, 3);
}

TEST(RunTest, EndsAProgramThatHangs) {
    EXPECT_EQ(run({"sleep", "60"}, {}, 1).status, 128 + SIGKILL);
}

TEST(RunTest, AddsToTheEnvironment) {
    EXPECT_EQ(run({"sh", "-c", "echo $CORVO_TEST_VARIABLE"}, {{"CORVO_TEST_VARIABLE", "x"}}).out,
              "x\n");
}

TEST(RunForkedTest, GivesTheStatusOfAnExit) {
    EXPECT_EQ(runForked([] { std::exit(7); }).status, 7);  // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(runForked([] {}).status, 0);
}

}  // namespace
}  // namespace corvo::test
