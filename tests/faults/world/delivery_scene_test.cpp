#include "tests/faults/world/delivery_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/keeps_delivering.h"
#include "tests/faults/world/delivery_record.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string REVERSED = "kept.example/both-2-reversed/.qmail";
const std::string LINES = "| true\n" + test::DELIVERY_LINE + "\n";
const std::string LOCK_FOLDER = "/run/lock/files";
const std::string AGENT = "/usr/bin/deliverquota";

class DeliverySceneTest : public test::SandboxTest {
protected:
    DeliverySceneTest() { test::installMailServer(); }

    Violations judged(const DeliveryScene& scene) const {
        return checkKeepsDelivering(scene.before(), scene.wanted(), scene.deliveryFiles());
    }
};

TEST_F(DeliverySceneTest, EveryKindOfMailNameHasItsFile) {
    // A mailbox; groups with and without mailbox with 0 to 5 forwards, and 2 to 5 in other order.
    EXPECT_THAT(DeliveryScene(allRecipients()).deliveryFiles(), SizeIs(21));
}

TEST_F(DeliverySceneTest, OnlyTheOrderOfForwardsDiffersFromWhatShallBe) {
    const DeliveryScene scene(fewRecipients());
    EXPECT_EQ(scene.before().at(REVERSED).content,
              LINES + "&to2@away.example\n&to1@away.example\n");
    EXPECT_EQ(scene.wanted().at(REVERSED).content,
              LINES + "&to1@away.example\n&to2@away.example\n");
    EXPECT_EQ(scene.before().at("kept.example/group-2/.qmail").content,
              "| true\n&to1@away.example\n&to2@away.example\n");
}

TEST_F(DeliverySceneTest, ItIsSoundBeforeAndAfterAnUndisturbedRun) {
    const DeliveryScene scene(fewRecipients());
    EXPECT_THAT(judged(scene), IsEmpty());
    EXPECT_EQ(undisturbedRun().status, 0);
    EXPECT_THAT(judged(scene), IsEmpty());
    test::writeFile(test::MAILNAMES + "/" + REVERSED, "| true\n&to1@away.example\n");
    EXPECT_THAT(judged(scene), SizeIs(2));
    scene.reset();
    EXPECT_THAT(judged(scene), IsEmpty());
}

TEST_F(DeliverySceneTest, EachStateIsRecordedOnce) {
    const DeliveryScene scene(fewRecipients());
    scene.reset();
    DeliveryRecord record(scene);
    record.note();
    record.note();
    test::writeFile(test::MAILNAMES + "/" + REVERSED, "| true\n");
    record.note();
    const std::vector<Tree> states = record.states();
    ASSERT_THAT(states, SizeIs(2));
    EXPECT_THAT(states[0], SizeIs(3));
    EXPECT_EQ(states[0].at(REVERSED).content, scene.before().at(REVERSED).content);
    EXPECT_EQ(states[1].at(REVERSED).content, "| true\n");
    EXPECT_THAT(DeliveryRecord(scene).states(), IsEmpty());
}

TEST_F(DeliverySceneTest, WhatIsMissingComesBack) {
    {
        const DeliveryScene scene(fewRecipients());
        for (const Missing missing : MISSING) {
            scene.reset(missing);
            EXPECT_EQ(test::exists(LOCK_FOLDER), missing != Missing::lockFolder);
            EXPECT_EQ(test::exists(AGENT), missing != Missing::deliveryAgent);
            EXPECT_EQ(test::exists(test::DEFAULT_DELIVERY), missing != Missing::defaultLine);
        }
    }
    EXPECT_TRUE(test::exists(test::DEFAULT_DELIVERY));
}

}  // namespace
}  // namespace corvo::faults
