#include "audit/means.h"

#include "mail/delivery/delivery_agent.h"
#include "tests/unit/audit/look_fixture.h"
#include "utils/file_lock.h"

namespace corvo::audit::test {

namespace {

namespace fs = std::filesystem;

using corvo::test::DEFAULT_DELIVERY;
using corvo::test::DELIVERY_LINE;

// A mail server whose means a user looks for who is not root.
class MeansTest : public LookTest {
protected:
    static Means findAsPopuser() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        const AsPopuser popuser;
        return findMeans();
    }

    static void close(const std::string& path) { ASSERT_EQ(::chmod(path.c_str(), 0700), 0); }
};

TEST_F(MeansTest, ServerInOrderHasAll) {
    const Means found = findAsPopuser();
    EXPECT_TRUE(found.hasAgent);
    EXPECT_TRUE(found.hasLocks);
    EXPECT_EQ(found.deliveryLine, DELIVERY_LINE);
    EXPECT_EQ(found.hidden, "");
}

TEST_F(MeansTest, LockFolderThatIsRootsAloneServesARun) {
    close(LOCK_FOLDER);
    EXPECT_TRUE(findAsPopuser().hasLocks);
    EXPECT_EQ(findAsPopuser().hidden, "");
}

TEST_F(MeansTest, LockFolderOutOfSightIsHidden) {
    close(fs::path(LOCK_FOLDER).parent_path());
    EXPECT_EQ(findAsPopuser().hidden, std::string(LOCK_FOLDER) + ": Permission denied");
}

TEST_F(MeansTest, MissingLockFolderIsMissing) {
    fs::remove_all(LOCK_FOLDER);
    EXPECT_FALSE(findAsPopuser().hasLocks);
    EXPECT_EQ(findAsPopuser().hidden, "");
}

TEST_F(MeansTest, DeliveryLineThatMayNotBeReadIsHidden) {
    corvo::test::writeFile(DEFAULT_DELIVERY, DELIVERY_LINE, 0, 0, 0600);
    const Means found = findAsPopuser();
    EXPECT_FALSE(found.deliveryLine);
    EXPECT_EQ(found.hidden, DEFAULT_DELIVERY + ": Permission denied");
}

TEST_F(MeansTest, AgentOutOfSightIsHidden) {
    const std::string agent = mail::DELIVERY_AGENTS[1].path;
    fs::remove(mail::DELIVERY_AGENTS[0].path);
    corvo::test::writeFile(agent, "", 0, 0, 0755);
    close(fs::path(agent).parent_path());
    const Means found = findAsPopuser();
    EXPECT_FALSE(found.hasAgent);
    EXPECT_EQ(found.hidden, agent + ": Permission denied");
}

}  // namespace

}  // namespace corvo::audit::test
