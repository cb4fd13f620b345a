#include "tests/support/system_calls.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

class SystemCallsTest : public SandboxTest {
protected:
    void SetUp() override { writeFile("/run/seen", "content"); }
};

TEST_F(SystemCallsTest, AreCountedByKind) {
    const SystemCalls calls({"cat", "/run/seen", "/run/seen"});

    EXPECT_EQ(calls.result().out, "contentcontent");
    EXPECT_EQ(calls.given("open", "\"/run/seen\""), 2);
    EXPECT_EQ(calls.given("write", "content"), 2);
    EXPECT_EQ(calls.given("open", "content"), 0);
    EXPECT_GE(calls.count("open"), 2);
    EXPECT_EQ(calls.count("openat"), 0);
    EXPECT_EQ(calls.count("fsync"), 0);
}

TEST_F(SystemCallsTest, AddUpToTheirTotal) {
    const SystemCalls calls({"cat", "/run/seen"});

    long sum = 0;
    for (const auto& [kind, count] : calls.counts())
        sum += count;
    EXPECT_GT(sum, 0);
    EXPECT_EQ(calls.total(), sum);
}

TEST_F(SystemCallsTest, LeaveOutTheWaitingForAnAnswer) {
    const SystemCalls calls({"/usr/bin/python3", "-c",
                             "import select, socket\n"
                             "first, second = socket.socketpair()\n"
                             "poll = select.poll()\n"
                             "poll.register(second, select.POLLIN)\n"
                             "poll.poll(1)\n"
                             "first.send(b'answer')\n"
                             "print(second.recv(10))\n"});

    EXPECT_EQ(calls.result().out, "b'answer'\n");
    EXPECT_EQ(calls.count("poll"), 0);
    EXPECT_EQ(calls.count("recvfrom"), 1);
}

}  // namespace
}  // namespace corvo::test
