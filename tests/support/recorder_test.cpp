#include "tests/support/recorder.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace corvo::test;

TEST(RecorderTest, OnlyNamedSlotsAreBound) {
    const Recorder recorder{"registerDomain"};
    EXPECT_FALSE(recorder.callbacks.registerDomain.empty());
    EXPECT_TRUE(recorder.callbacks.registerMailname.empty());
}

TEST(RecorderTest, UnknownSlotIsRefused) {
    EXPECT_THROW(Recorder{"registerDomian"}, std::invalid_argument);
}

TEST(RecorderTest, EachCallIsALineWithItsArguments) {
    Recorder recorder;
    recorder.bindAll();
    recorder.callbacks.setDomainCatchall("a.example", 1, "");
    recorder.callbacks.setRBLServers({"x", "y"});
    recorder.callbacks.setSmtpRelayAndAuth(2, true, false, 30);
    recorder.callbacks.restoreRecipientCanonical();
    EXPECT_EQ(recorder.lines(),
              (std::vector<std::string>{
                  R"(setDomainCatchall("a.example", 1, ""))", R"(setRBLServers(["x", "y"]))",
                  "setSmtpRelayAndAuth(2, true, false, 30)", "restoreRecipientCanonical()"}));
}

TEST(RecorderTest, ActionRunsAfterTheCallIsWrittenDown) {
    Recorder recorder{"restoreRecipientCanonical"};
    recorder.on("restoreRecipientCanonical", throwing(std::runtime_error("no")));
    EXPECT_THROW(recorder.callbacks.restoreRecipientCanonical(), std::runtime_error);
    EXPECT_EQ(recorder.lines().size(), 1U);
}

}  // namespace
