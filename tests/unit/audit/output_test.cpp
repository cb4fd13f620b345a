#include "audit/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

using audit::Colour;
using audit::Format;
using audit::Options;
using audit::Output;
using audit::Tone;

// What one record for each tone and a summary look like.
class OutputTest : public ::testing::Test {
protected:
    OutputTest() { ::unsetenv("NO_COLOR"); }

    std::string printed() {
        Output output(options);
        output.print({{"n", 1}}, "bad", Tone::problem);
        output.print({{"n", 2}}, "doubtful", Tone::warning);
        output.print({{"n", 3}}, "good", Tone::good);
        output.print({{"n", 4}}, "plain", Tone::plain);
        EXPECT_TRUE(output.finish(audit::Record{{"all", 4}}, "4 records."));
        return streams.out();
    }

    StreamCapture streams;
    Options options;
};

TEST_F(OutputTest, TableHasLinesAndASummary) {
    EXPECT_EQ(printed(), "bad\ndoubtful\ngood\nplain\n4 records.\n");
}

TEST_F(OutputTest, QuietTableHasNoSummaryAndNothingGood) {
    options.quiet = true;
    EXPECT_EQ(printed(), "bad\ndoubtful\nplain\n");
}

TEST_F(OutputTest, ColourTellsTheTone) {
    options.colour = Colour::always;
    EXPECT_EQ(printed(),
              "\x1b[31mbad\x1b[0m\n\x1b[33mdoubtful\x1b[0m\n\x1b[32mgood\x1b[0m\nplain\n"
              "4 records.\n");
}

TEST_F(OutputTest, ColourThatIsAskedForIsThereInSpiteOfTheEnvironment) {
    ::setenv("NO_COLOR", "1", 1);
    options.colour = Colour::always;
    EXPECT_TRUE(printed().starts_with("\x1b[31mbad\x1b[0m\n"));
    ::unsetenv("NO_COLOR");
}

TEST_F(OutputTest, WhatIsNoTerminalHasNoColourByItself) {
    options.colour = Colour::automatic;
    EXPECT_TRUE(printed().starts_with("bad\n"));
}

TEST_F(OutputTest, JsonLinesAreTheObjectsAlone) {
    options.format = Format::jsonl;
    options.colour = Colour::always;
    EXPECT_EQ(printed(), "{\"n\":1}\n{\"n\":2}\n{\"n\":3}\n{\"n\":4}\n");
    options.quiet = true;
    EXPECT_EQ(printed(), "{\"n\":1}\n{\"n\":2}\n{\"n\":4}\n");
}

TEST_F(OutputTest, JsonDocumentIsWholeEvenWhenQuiet) {
    options.format = Format::json;
    options.colour = Colour::always;
    const std::string document =
        "{\"items\": [\n  {\"n\":1},\n  {\"n\":2},\n  {\"n\":3},\n  {\"n\":4}\n ], "
        "\"summary\": {\"all\":4},\n \"not_looked_at\": []}\n";
    EXPECT_EQ(printed(), document);
    options.quiet = true;
    EXPECT_EQ(printed(), document);
}

TEST_F(OutputTest, NothingPrintedIsADocumentToo) {
    options.format = Format::json;
    EXPECT_TRUE(Output(options).finish(std::nullopt, ""));
    EXPECT_EQ(streams.out(), "{\"items\": [], \"summary\": null,\n \"not_looked_at\": []}\n");
}

TEST_F(OutputTest, EmptySummaryLineIsNoLine) {
    EXPECT_TRUE(Output(options).finish(std::nullopt, ""));
    EXPECT_EQ(streams.out(), "");
}

TEST_F(OutputTest, WhatIsNotLookedAtIsToldAtOnceAndInTheDocument) {
    options.format = Format::json;
    Output output(options);
    EXPECT_TRUE(output.isWhole());
    output.omit("a\x1b\xff");
    EXPECT_FALSE(output.isWhole());
    EXPECT_EQ(streams.err(), "mail_audit: a\\x1b\\xff\n");
    EXPECT_TRUE(output.finish(std::nullopt, ""));
    EXPECT_EQ(streams.out(),
              "{\"items\": [], \"summary\": null,\n \"not_looked_at\": [\"a\\u001b\\\\xff\"]}\n");
}

TEST_F(OutputTest, JsonDrivesNoTerminal) {
    options.format = Format::jsonl;
    Output output(options);
    output.print({{"text", "\x1b\x7f\u009b\u202eü\xff"}}, "", Tone::plain);
    EXPECT_TRUE(output.finish(std::nullopt, ""));
    EXPECT_EQ(streams.out(), "{\"text\":\"\\u001b\\u007f\\u009b\\u202eü\\\\xff\"}\n");
}

// In a process of its own, whose standard output takes nothing.
std::string errorsWithoutOutput(const std::function<void()>& body) {
    const ProcessResult result = runForked([&] {
        const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        ::dup2(full, STDOUT_FILENO);
        body();
    });
    EXPECT_EQ(result.status, 0);
    return result.err;
}

TEST(OutputWithoutRoomTest, IsToldOnceAtTheEnd) {
    EXPECT_EQ(errorsWithoutOutput([] {
                  Output output{Options()};
                  for (int i = 0; i < 10000; ++i)
                      output.print({}, "a line that fills the buffer", Tone::plain);
                  if (output.finish(audit::Record(), "done"))
                      ::_exit(1);
              }),
              "mail_audit: standard output: No space left on device\n");
}

TEST(OutputWithoutRoomTest, IsSeenWhereABufferHidesItUntilTheEnd) {
    EXPECT_EQ(errorsWithoutOutput([] {
                  Output output{Options()};
                  output.print({}, "a line", Tone::plain);
                  if (output.finish(audit::Record(), ""))
                      ::_exit(1);
              }),
              "mail_audit: standard output: No space left on device\n");
}

}  // namespace
}  // namespace corvo::test
