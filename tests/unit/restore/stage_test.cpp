#include "restore/stage.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "tests/support/capture.h"

namespace corvo::test {
namespace {

using namespace corvo::mail::restore;

void succeed() {}

void fail() {
    throw std::runtime_error("no luck");
}

void runOut() {
    throw std::bad_alloc();
}

void leave() {
    throw 7;
}

using Runner = void (*)(const std::string& label, const Work& work);

bool attempted(const std::string& label, const Work& work) {
    return attempt(label, work);
}

void runAttempt(const std::string& label, const Work& work) {
    (void)attempt(label, work);
}

class StageTest : public ::testing::Test {
protected:
    void TearDown() override { isDebug = false; }

    /// What a runner writes to standard error; fails the test when it writes to standard output.
    static std::string printed(Runner run, const Work& work) {
        StreamCapture capture;
        run(" mending", work);
        EXPECT_EQ(capture.out(), "");
        return capture.err();
    }
};

struct Texts {
    const char* name;
    Runner run;
    const char* success;  // in debug mode; nothing is written outside it
    const char* failure;  // in debug mode
};

const Texts RUNNERS[] = {
    {"attempt", runAttempt, "", " mending failed (no luck), ignored\n"},
    {"stage", runStage, " mending... done\n", " mending... failed (no luck), ignored\n"},
    {"cycle stage", runCycleStage, " mending:\n mending done\n",
     " mending:\n mending failed (no luck), ignored\n"},
    {"step", runStep, " mending... done\n", " mending... mending failed (no luck), ignored\n"},
    {"cycle step", runCycleStep, " mending:\n mending done\n",
     " mending:\n mending failed (no luck), ignored\n"},
};

TEST_F(StageTest, SuccessIsToldInDebugModeOnly) {
    for (const Texts& runner : RUNNERS) {
        SCOPED_TRACE(runner.name);
        isDebug = false;
        EXPECT_EQ(printed(runner.run, succeed), "");
        isDebug = true;
        EXPECT_EQ(printed(runner.run, succeed), runner.success);
    }
}

TEST_F(StageTest, FailureIsOneLineOutsideDebugMode) {
    for (const Texts& runner : RUNNERS) {
        SCOPED_TRACE(runner.name);
        EXPECT_EQ(printed(runner.run, fail), " mending failed (no luck), ignored\n");
    }
}

TEST_F(StageTest, FailureInDebugModeTakesNoDone) {
    isDebug = true;
    for (const Texts& runner : RUNNERS) {
        SCOPED_TRACE(runner.name);
        EXPECT_EQ(printed(runner.run, fail), runner.failure);
    }
}

TEST_F(StageTest, AttemptSaysHowItWent) {
    StreamCapture capture;
    EXPECT_TRUE(attempted(" mending", succeed));
    EXPECT_FALSE(attempted(" mending", fail));
    EXPECT_EQ(capture.err(), " mending failed (no luck), ignored\n");
}

TEST_F(StageTest, OutOfMemoryPassesStagesWithoutAWord) {
    for (const Runner run : {runAttempt, runStage, runCycleStage}) {
        StreamCapture capture;
        EXPECT_THROW(run(" mending", runOut), std::bad_alloc);
    }
}

TEST_F(StageTest, OutOfMemoryEndsInTheStep) {
    for (const Runner run : {runStep, runCycleStep})
        EXPECT_EQ(printed(run, runOut), " mending failed (std::bad_alloc), ignored\n");
}

TEST_F(StageTest, ForeignExceptionsPassEveryRunner) {
    for (const Texts& runner : RUNNERS) {
        SCOPED_TRACE(runner.name);
        StreamCapture capture;
        EXPECT_THROW(runner.run(" mending", leave), int);
    }
}

}  // namespace
}  // namespace corvo::test
