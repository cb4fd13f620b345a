#include "utils/accounts.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

class AccountsTest : public LoggingTest {};

class AccountsWithoutMemoryTest : public WithoutMemoryTest {};

/// Runs in a child whose databases can be opened but not read.
ProcessResult runWithUnreadableDatabases(const std::function<void()>& body) {
    return runForked([&] {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0)
            std::exit(99);
        writeFile("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
        makeDirectory("/etc/passwd");
        makeDirectory("/etc/group");
        body();
    });
}

TEST_F(AccountsTest, PopuserIsKnownByItsUid) {
    EXPECT_TRUE(is_popuser(POPUSER_UID));
    EXPECT_FALSE(is_popuser(POPUSER_GID));
    EXPECT_FALSE(is_popuser(0));
    removeUser("popuser");
    EXPECT_FALSE(is_popuser(POPUSER_UID));
}

TEST_F(AccountsTest, GroupIsFoundByName) {
    const struct group* const found = lookup_group("popuser");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->gr_gid, POPUSER_GID);
}

TEST_F(AccountsTest, GroupIsFoundByNumber) {
    const struct group* const found = lookup_group("1032");
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->gr_name, "popuser");
}

TEST_F(AccountsTest, NoGroupNameFindsNothingSilently) {
    EXPECT_EQ(lookup_group(nullptr), nullptr);
    EXPECT_EQ(lookup_group(""), nullptr);
}

TEST_F(AccountsTest, UnknownGroupsAreReported) {
    EXPECT_EQ(lookup_group("nobodys"), nullptr);
    EXPECT_EQ(message(), "getgrnam(nobodys): Group not found\n");
    EXPECT_EQ(lookup_group("54321"), nullptr);
    EXPECT_EQ(message(), "getgrgid(54321): Group not found\n");
    EXPECT_EQ(lookup_group("10x"), nullptr);
    EXPECT_EQ(message(), "getgrnam(10x): Group not found\n");
}

TEST_F(AccountsTest, TooLargeANumberIsNobodysGroup) {
    for (const char* number : {"4294967296", "99999999999999999999999"}) {
        EXPECT_EQ(lookup_group(number), nullptr);
        EXPECT_EQ(message(), "getgrgid(4294967295): Group not found\n");
    }
}

TEST_F(AccountsTest, LookUpsThatCannotBeMadeAreReportedWithTheirReason) {
    const struct {
        std::function<void()> lookUp;
        const char* message;
    } cases[] = {
        {[] { lookup_group("nobodys"); }, "getgrnam(nobodys): Is a directory\n"},
        {[] { lookup_group("54321"); }, "getgrgid(54321): Is a directory\n"},
        {[] { get_user_id("nobodys"); }, "Unable to find uid for user nobodys: Is a directory\n"},
        {[] { corvo_ugid("nobodys", 0); }, "Unable to getpwnam for user nobodys\n"},
    };
    for (const auto& [lookUp, message] : cases) {
        const ProcessResult result = runWithUnreadableDatabases(lookUp);
        EXPECT_EQ(result.err, std::string(message) + "System error 21: Is a directory\n");
        EXPECT_EQ(result.out, result.err);
    }
}

TEST_F(AccountsWithoutMemoryTest, GetpwFailsWhenTheHomeCannotBeCopied) {
    const ProcessResult result = runForked([] {
        char* home = nullptr;
        // The databases are open from now on.
        (void)corvo_getpw("popuser", nullptr, nullptr, &home);
        std::free(home);
        uid_t uid = 11;
        home = nullptr;
        exhaustMemory();
        const int failure = corvo_getpw("popuser", &uid, nullptr, &home);
        std::exit(failure == -1 && uid == 11 && home == nullptr ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "Can't allocate memory for error message\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(AccountsTest, GroupIdIsTheGidOrZero) {
    EXPECT_EQ(get_group_id("popuser"), POPUSER_GID);
    EXPECT_EQ(get_group_id(""), 0U);
    EXPECT_EQ(get_group_id("nobodys"), 0U);
    EXPECT_EQ(message(), "getgrnam(nobodys): Group not found\n");
}

TEST_F(AccountsTest, GroupIfExistsTellsRootsGroupFromNone) {
    int found = -1;
    EXPECT_EQ(get_group_if_exists("popuser", &found), POPUSER_GID);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(get_group_if_exists("root", &found), 0U);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(get_group_if_exists("nobodys", &found), 0U);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(message(), "getgrnam(nobodys): Group not found\n");
}

TEST_F(AccountsTest, GetpwFillsWhatIsAskedFor) {
    uid_t uid = 0;
    gid_t gid = 0;
    char* home = nullptr;
    ASSERT_EQ(corvo_getpw("popuser", &uid, &gid, &home), 0);
    const corvo::UniqueCString owner(home);
    EXPECT_EQ(uid, POPUSER_UID);
    EXPECT_EQ(gid, POPUSER_GID);
    EXPECT_STREQ(home, "/var/qmail/popuser");
    EXPECT_EQ(corvo_getpw("popuser", nullptr, nullptr, nullptr), 0);
}

TEST_F(AccountsTest, GetpwOfNobodyTouchesNothing) {
    uid_t uid = 11;
    gid_t gid = 12;
    char* home = nullptr;
    EXPECT_EQ(corvo_getpw("nobodyatall", &uid, &gid, &home), -1);
    EXPECT_EQ(message(), "Unable to getpwnam for user nobodyatall\n");
    EXPECT_EQ(uid, 11U);
    EXPECT_EQ(gid, 12U);
    EXPECT_EQ(home, nullptr);
}

TEST_F(AccountsTest, UgidGivesEitherNumber) {
    EXPECT_EQ(corvo_ugid("popuser", 0), POPUSER_UID);
    EXPECT_EQ(corvo_ugid("popuser", 1), POPUSER_GID);
    EXPECT_EQ(corvo_ugid("nobodyatall", 1), 0U);
    EXPECT_EQ(message(), "Unable to getpwnam for user nobodyatall\n");
}

TEST_F(AccountsTest, UserIdIsTheUidOrZero) {
    EXPECT_EQ(get_user_id("popuser"), POPUSER_UID);
    EXPECT_EQ(get_user_id("nobodyatall"), 0U);
    EXPECT_EQ(message(), "Unable to find uid for user nobodyatall: User not found\n");
}

TEST_F(AccountsTest, UserNameIsTheNameOrTheNumber) {
    EXPECT_STREQ(get_user_name(POPUSER_UID), "popuser");
    EXPECT_STREQ(get_user_name(54321), "54321");
    EXPECT_STREQ(get_user_name(4294967295U), "4294967295");
    EXPECT_EQ(get_user_name(0), get_user_name(1)) << "one static buffer";
}

TEST_F(AccountsTest, UserNameOf4095BytesIsWholeAndALongerOneIsCut) {
    const std::string longest(4095, 'n');
    writeFile("/etc/passwd",
              longest + ":x:2001:2001::/:/bin/false\n" + longest + "n:x:2002:2002::/:/bin/false\n");
    EXPECT_EQ(get_user_name(2001), longest);
    EXPECT_EQ(get_user_name(2002), longest);
}

}  // namespace
}  // namespace corvo::test
