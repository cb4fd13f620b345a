#include "audit/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "audit/escaped_errors.h"
#include "audit/output.h"
#include "restore/walker.h"
#include "tests/support/capture.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* CLEARED = "\r\x1b[K";

// Of whatever walk was made last.
std::string line() {
    return "\r0 of " + std::to_string(mail::restore::domainsOfWalk()) + " domains\x1b[K";
}

// A terminal that stands where standard error was.
class ErrorTerminal {
public:
    ErrorTerminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY)), saved_(::dup(2)) {
        EXPECT_EQ(::grantpt(master_.get()), 0);
        EXPECT_EQ(::unlockpt(master_.get()), 0);
        const UniqueFd slave(::open(::ptsname(master_.get()), O_RDWR | O_NOCTTY));
        EXPECT_EQ(::dup2(slave.get(), 2), 2);
    }
    ~ErrorTerminal() { ::dup2(saved_.get(), 2); }
    ErrorTerminal(const ErrorTerminal&) = delete;
    ErrorTerminal& operator=(const ErrorTerminal&) = delete;

    // What has come since the last look: up to a mark, because the kernel passes it on later.
    std::string text() {
        EXPECT_EQ(::write(2, &MARK, 1), 1);
        std::string all;
        for (char next = 0; ::read(master_.get(), &next, 1) == 1 && next != MARK;)
            all += next;
        return all;
    }

private:
    static constexpr char MARK = '\a';

    UniqueFd master_;
    UniqueFd saved_;
};

class ProgressTest : public testing::Test {
protected:
    // Late enough for the line to be shown.
    void step() {
        audit::Progress progress(options_);
        std::this_thread::sleep_for(250ms);
        progress.step();
    }

    StreamCapture streams_;
    ErrorTerminal terminal_;
    audit::Options options_;
};

TEST_F(ProgressTest, IsOneLineOnATerminal) {
    step();
    EXPECT_EQ(terminal_.text(), line());
    audit::clearProgress();
    EXPECT_EQ(terminal_.text(), CLEARED);
    audit::clearProgress();
    EXPECT_EQ(terminal_.text(), "");
}

TEST_F(ProgressTest, IsNotShownWhereNobodyWantsIt) {
    options_.progress = false;
    step();
    EXPECT_EQ(terminal_.text(), "");
}

TEST_F(ProgressTest, IsNotShownByAQuietProgram) {
    options_.quiet = true;
    step();
    EXPECT_EQ(terminal_.text(), "");
}

TEST_F(ProgressTest, MakesWayForAFailureOfTheWalk) {
    const audit::EscapedErrors escaped;
    step();
    std::cerr << "a failure\n";
    EXPECT_EQ(terminal_.text(), line() + CLEARED + "a failure\r\n");
}

TEST_F(ProgressTest, MakesWayForWhatWasNotLookedAt) {
    audit::Output output(options_);
    step();
    output.omit("a home");
    EXPECT_EQ(terminal_.text(), line() + CLEARED + "mail_audit: a home\r\n");
}

TEST_F(ProgressTest, MakesWayForAnItem) {
    audit::Output output(options_);
    step();
    output.print({}, "an item", audit::Tone::plain);
    EXPECT_EQ(terminal_.text(), line() + CLEARED);
    EXPECT_TRUE(output.finish(std::nullopt, ""));
    EXPECT_EQ(streams_.out(), "an item\n");
}

TEST_F(ProgressTest, MakesWayForTheSummary) {
    audit::Output output(options_);
    step();
    EXPECT_TRUE(output.finish(std::nullopt, "the end"));
    EXPECT_EQ(terminal_.text(), line() + CLEARED);
    EXPECT_EQ(streams_.out(), "the end\n");
}

}  // namespace
}  // namespace corvo::test
