#include "tests/support/second_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string TRACE = "/var/qmail/trace";

class SecondProcessTest : public SandboxTest {};

TEST_F(SecondProcessTest, IsReadyWhenItSaysSo) {
    const SecondProcess other([](const SecondProcess::Ready& ready) {
        ::usleep(20'000);
        writeFile(TRACE, "was here");
        ready();
        ::pause();
    });
    EXPECT_EQ(contentsOf(TRACE), "was here");
}

TEST_F(SecondProcessTest, EndThatComesBeforeItIsReadyIsAFailure) {
    EXPECT_THROW(SecondProcess([](const SecondProcess::Ready&) {}), std::runtime_error);
}

TEST_F(SecondProcessTest, TellsAGoodEndFromABadOne) {
    SecondProcess good([](const SecondProcess::Ready& ready) { ready(); });
    SecondProcess bad([](const SecondProcess::Ready& ready) {
        ready();
        ::_exit(1);
    });
    EXPECT_TRUE(good.endedWell());
    EXPECT_FALSE(bad.endedWell());
}

TEST_F(SecondProcessTest, IsGoneWithItsObject) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    {
        const SecondProcess other([](const SecondProcess::Ready& ready) {
            ready();
            ::pause();
        });
    }
    ::close(ends[1]);
    char sign = 0;
    EXPECT_EQ(::read(ends[0], &sign, 1), 0) << "the pipe is still held";
    ::close(ends[0]);
}

}  // namespace
}  // namespace corvo::test
