#include "utils/error_stream.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/capture.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

class ErrorStreamTest : public ::testing::Test {
protected:
    StreamCapture streams;
};

TEST_F(ErrorStreamTest, ShowsEachCharacterOnStandardErrorAtOnce) {
    uerr << 'a';
    EXPECT_EQ(streams.err(), "a");
    uerr << 'b';
    EXPECT_EQ(streams.err(), "b");
    EXPECT_EQ(streams.out(), "");
    uerr << std::endl;
    EXPECT_EQ(streams.err(), "\n");
    EXPECT_EQ(streams.out(), "ab\n");
}

TEST_F(ErrorStreamTest, ShowsEachTextOnStandardOutputOnce) {
    uerr << "first " << 1 << std::endl;
    EXPECT_EQ(streams.out(), "first 1\n");
    uerr << "second " << 2 << std::endl;
    EXPECT_EQ(streams.out(), "second 2\n");
    EXPECT_EQ(streams.err(), "first 1\nsecond 2\n");
}

TEST_F(ErrorStreamTest, ShowsNothingForAFlushWithoutText) {
    uerr << std::flush;
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(streams.err(), "");
}

TEST_F(ErrorStreamTest, PassesEveryByteOn) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes.push_back(static_cast<char>(byte));
    uerr << bytes << std::flush;
    EXPECT_EQ(streams.err(), bytes);
    EXPECT_EQ(streams.out(), bytes);
}

TEST_F(ErrorStreamTest, PassesOnATextThatWasNeverFlushedWhenItEnds) {
    {
        UtilityErrorStream stream;
        stream << "left";
        EXPECT_EQ(streams.out(), "");
    }
    EXPECT_EQ(streams.out(), "left");
    EXPECT_EQ(streams.err(), "left");
}

TEST_F(ErrorStreamTest, PassesOnATextThatWasNeverFlushedAtExit) {
    const ProcessResult result = runForked([] { uerr << "never flushed"; });
    EXPECT_EQ(result.out, "never flushed");
    EXPECT_EQ(result.err, "never flushed");
    EXPECT_EQ(result.status, 0);
}

TEST(ErrorStreamOfTheProcessTest, IsReadyBeforeMainAndUntilAllIsDestroyed) {
    const ProcessResult result = run({CORVO_EARLY_ERROR});
    EXPECT_EQ(result.err, "before main\nin main\nafter main");
    EXPECT_EQ(result.out, "before main\nin main\nafter main");
    EXPECT_EQ(result.status, 0);
}

TEST(ErrorStreamWithoutMemoryTest, PassesOnALongText) {
    requireExhaustibleMemory();
    static const std::string text(5000, 'x');
    const ProcessResult result = runForked([] {
        exhaustMemory();
        uerr << text << "end" << std::endl;
    });
    EXPECT_EQ(result.err, text + "end\n");
    EXPECT_EQ(result.out, text + "end\n");
    EXPECT_EQ(result.status, 0);
}

struct OpenBuffer : UtilityErrorStreamBuf {
    using UtilityErrorStreamBuf::overflow;
};

TEST_F(ErrorStreamTest, TakesTheEndOfFileForNoCharacter) {
    OpenBuffer buffer;
    EXPECT_EQ(buffer.overflow(EOF), EOF);
    EXPECT_EQ(buffer.overflow('a'), 'a');
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_EQ(streams.err(), "a");
    EXPECT_EQ(streams.out(), "a");
}

}  // namespace
}  // namespace corvo::test
