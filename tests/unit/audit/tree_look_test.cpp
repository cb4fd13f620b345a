#include "audit/tree_look.h"

#include <fcntl.h>

#include <algorithm>

#include "mail/home/skeleton.h"
#include "tests/unit/audit/look_fixture.h"

namespace corvo::audit::test {

namespace {

using corvo::test::POPUSER_UID;
using State = FoundDirectory::State;
using Texts = std::vector<std::string>;

class TreeLookTest : public LookTest {
protected:
    TreeLookTest() {
        for (const mail::SkeletonEntry& entry : mail::SKELETON)
            makeFolder(std::string("/") + entry.path);
    }

    FoundDirectory find(const std::string& path) const {
        return findDirectory(AT_FDCWD, path.c_str(), means.home);
    }

    Texts lookInside() {
        items.clear();
        const UniqueFd home(::open(HOME.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        afterwards = lookAtSkeleton(items, about, home.get(), means.home);
        return textsWithPaths(items, HOME);
    }

    static void remove(const std::string& path) { std::filesystem::remove_all(HOME + path); }

    // Puts a folder elsewhere, and a link in its place.
    static void moveBehindLink(const std::string& path, uid_t owner) {
        std::filesystem::rename(HOME + path, HOME + "/moved");
        corvo::test::makeLink(HOME + "/moved", HOME + path, owner);
    }

    HomeAfterwards afterwards;
};

// --- one directory

TEST_F(TreeLookTest, DirectoryThatIsRightDiffersInNothing) {
    const FoundDirectory found = find(HOME);
    EXPECT_EQ(found.state, State::there);
    EXPECT_TRUE(found.directory);
    EXPECT_EQ(found.differences, mail::Differences{});
}

TEST_F(TreeLookTest, OwnerGroupAndModeAreToldInNames) {
    ASSERT_EQ(::chown(HOME.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(HOME.c_str(), 02755), 0);
    const FoundDirectory found = find(HOME);
    addOwnershipItems(items, about, found.differences, found.seen, means.home);
    EXPECT_THAT(texts(items), ElementsAre("home: has another owner, popuser, root [--all]",
                                          "home: has another group, popuser, root [--all]",
                                          "home: has another mode, 0700, 2755 [--all]"));
}

TEST_F(TreeLookTest, OwnersWithoutNamesAreToldInNumbers) {
    ASSERT_EQ(::chown(HOME.c_str(), 54321, 54322), 0);
    const FoundDirectory found = find(HOME);
    addOwnershipItems(items, about, found.differences, found.seen, means.home);
    EXPECT_THAT(texts(items), ElementsAre("home: has another owner, popuser, 54321 [--all]",
                                          "home: has another group, popuser, 54322 [--all]"));
}

TEST_F(TreeLookTest, MissingDirectoryMayHaveMissingParents) {
    EXPECT_EQ(find(HOME + "/no").state, State::missing);
    EXPECT_EQ(find(HOME + "/no/such/folder").state, State::missing);
}

TEST_F(TreeLookTest, FileIsInTheWay) {
    corvo::test::writeFile(HOME + "/file", "");
    EXPECT_EQ(find(HOME + "/file").state, State::blocked);
    EXPECT_EQ(find(HOME + "/file").reason, "is no directory");
}

TEST_F(TreeLookTest, LinkOfRootIsFollowedAndOthersAreRefused) {
    corvo::test::makeLink(HOME + "/Maildir", HOME + "/roots");
    corvo::test::makeLink(HOME + "/Maildir", HOME + "/popusers", POPUSER_UID);
    EXPECT_EQ(find(HOME + "/roots").state, State::there);
    EXPECT_EQ(find(HOME + "/popusers").state, State::blocked);
    EXPECT_EQ(find(HOME + "/popusers").reason, "is a link that is refused");
}

TEST_F(TreeLookTest, LinkThatLeadsNowhereIsNotMissing) {
    corvo::test::makeLink("/nowhere", HOME + "/dangling");
    EXPECT_EQ(find(HOME + "/dangling").state, State::blocked);
}

TEST_F(TreeLookTest, NameThatIsTooLongIsInTheWay) {
    const FoundDirectory found = find(HOME + "/" + std::string(300, 'n'));
    EXPECT_EQ(found.state, State::blocked);
    EXPECT_EQ(found.reason, "has too long a name");
}

// --- all directories of a home

TEST_F(TreeLookTest, WholeSkeletonHasNoItem) {
    EXPECT_THAT(lookInside(), IsEmpty());
    EXPECT_TRUE(afterwards.isWhole);
    EXPECT_TRUE(afterwards.hasMaildir);
}

TEST_F(TreeLookTest, EachDirectoryOfTheSkeletonIsLookedAt) {
    for (const mail::SkeletonEntry& entry : mail::SKELETON) {
        const std::string path = std::string("/") + entry.path;
        ASSERT_EQ(::chmod((HOME + path).c_str(), 0755), 0);
        EXPECT_THAT(lookInside(),
                    ElementsAre(path + " directory: has another mode, 0700, 0755 [--all]"));
        ASSERT_EQ(::chmod((HOME + path).c_str(), 0700), 0);
    }
}

TEST_F(TreeLookTest, MissingDirectoryStandsForAllThatIsInIt) {
    remove("/Maildir");
    EXPECT_THAT(lookInside(), ElementsAre("/Maildir directory: is missing, -, - [--all]"));
    EXPECT_TRUE(afterwards.isWhole);
    EXPECT_TRUE(afterwards.hasMaildir);
}

TEST_F(TreeLookTest, BehindWhatIsInTheWayNothingIsRepaired) {
    ASSERT_EQ(::chmod((HOME + "/Maildir/new").c_str(), 0755), 0);
    remove("/Maildir/.Sent");
    corvo::test::writeFile(HOME + "/Maildir/.Sent", "");
    remove("/Maildir/.Trash");
    EXPECT_THAT(lookInside(),
                ElementsAre("/Maildir/new directory: has another mode, 0700, 0755 [--all]",
                            "/Maildir/.Sent directory: is no directory, -, - [none]",
                            "/Maildir/.Trash directory: is missing, -, - [none]"));
    EXPECT_FALSE(afterwards.isWhole);
    EXPECT_TRUE(afterwards.hasMaildir);
}

TEST_F(TreeLookTest, WithoutPlaceForNewFilesThereIsNoMaildir) {
    remove("/Maildir/tmp");
    corvo::test::writeFile(HOME + "/Maildir/tmp", "");
    EXPECT_THAT(lookInside(), ElementsAre("/Maildir/tmp directory: is no directory, -, - [none]"));
    EXPECT_FALSE(afterwards.hasMaildir);
    remove("/Maildir");
    corvo::test::writeFile(HOME + "/Maildir", "");
    EXPECT_THAT(lookInside(), ElementsAre("/Maildir directory: is no directory, -, - [none]"));
    EXPECT_FALSE(afterwards.hasMaildir);
}

TEST_F(TreeLookTest, LinkOfRootInTheSkeletonIsNoFault) {
    moveBehindLink("/Maildir/cur", 0);
    EXPECT_THAT(lookInside(), IsEmpty());
}

TEST_F(TreeLookTest, LinkOfPopuserInTheSkeletonIsRefused) {
    moveBehindLink("/Maildir/cur", POPUSER_UID);
    EXPECT_THAT(lookInside(),
                ElementsAre("/Maildir/cur directory: is a link that is refused, -, - [none]"));
    EXPECT_FALSE(afterwards.isWhole);
}

TEST_F(TreeLookTest, DirectoryThatIsClosedToWhoLooksIsSeenFromOutside) {
    ASSERT_EQ(::chmod((HOME + "/Maildir/.Sent").c_str(), 0), 0);
    ASSERT_EQ(::chmod((HOME + "/Maildir/cur").c_str(), 0), 0);
    const AsPopuser popuser;
    EXPECT_THAT(lookInside(),
                ElementsAre("/Maildir/cur directory: has another mode, 0700, 0000 [--all]",
                            "/Maildir/.Sent directory: has another mode, 0700, 0000 [--all]",
                            "/Maildir/.Sent directory: Permission denied: what is in it was not "
                            "looked at, -, - [none]"));
    EXPECT_FALSE(items[1].isHidden);
    EXPECT_TRUE(items[2].isHidden);
    EXPECT_TRUE(afterwards.isWhole);
}

TEST_F(TreeLookTest, MissingDirectoryInOneThatMayNotBeReadIsMissing) {
    ASSERT_EQ(::chmod((HOME + "/Maildir").c_str(), 0711), 0);
    ASSERT_EQ(::chown((HOME + "/Maildir").c_str(), 0, 0), 0);
    const AsPopuser popuser;
    EXPECT_EQ(find(HOME + "/Maildir/.Former").state, FoundDirectory::State::missing);
}

}  // namespace

}  // namespace corvo::audit::test
