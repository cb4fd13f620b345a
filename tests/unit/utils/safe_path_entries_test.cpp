#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/safe_path_fixture.h"
#include "utils/safe_path.h"

namespace corvo::test::paths {
namespace {

TEST_F(SafePathTest, ComponentIsTheNameOfAnEntry) {
    using namespace std::string_view_literals;
    for (const std::string_view name : {"a"sv, "..."sv, ".a"sv, "..a"sv, " "sv})
        EXPECT_TRUE(safe_path::isComponent(name)) << name;
    for (const std::string_view name : {""sv, "."sv, ".."sv, "/"sv, "a/"sv, "/a"sv, "a\0b"sv})
        EXPECT_FALSE(safe_path::isComponent(name)) << name;
}

TEST_F(SafePathTest, LocateNamesTheParent) {
    safe_path::Location place;
    for (const char* name : {".qmail", "missing"}) {
        ASSERT_EQ(safe_path::locate(AT_FDCWD, (HOME + "/" + name).c_str(), LastLink::keep, place),
                  0);
        EXPECT_STREQ(place.name, name);
        struct stat seen {};
        ASSERT_EQ(::fstat(place.parent.get(), &seen), 0);
        EXPECT_EQ(seen.st_ino, inodeOf(HOME));
    }
}

TEST_F(SafePathTest, LocateWorksRelativeToItsBase) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    for (const LastLink last : {LastLink::keep, LastLink::follow}) {
        safe_path::Location place;
        ASSERT_EQ(safe_path::locate(home.get(), ".qmail", last, place), 0);
        EXPECT_NE(place.parent.get(), home.get());
        struct stat seen {};
        ASSERT_EQ(::fstatat(place.parent.get(), place.name, &seen, 0), 0);
        EXPECT_EQ(seen.st_ino, inodeOf(FILE_PATH));
    }
}

TEST_F(SafePathTest, LocateFollowsTheLastLinkOnlyWhenAsked) {
    makeLink("../info/target", DOMAIN + "/folder/trusted");
    makeLink("target", HOME + "/foreign", POPUSER_UID);
    const std::string trusted = DOMAIN + "/folder/trusted";
    safe_path::Location place;
    ASSERT_EQ(safe_path::locate(AT_FDCWD, trusted.c_str(), LastLink::keep, place), 0);
    EXPECT_STREQ(place.name, "trusted");
    ASSERT_EQ(safe_path::locate(AT_FDCWD, trusted.c_str(), LastLink::follow, place), 0);
    EXPECT_STREQ(place.name, "target");
    struct stat seen {};
    ASSERT_EQ(::fstat(place.parent.get(), &seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf(HOME));
    EXPECT_EQ(safe_path::locate(AT_FDCWD, (HOME + "/foreign").c_str(), LastLink::follow, place),
              -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(SafePathTest, LocateNeedsALastComponent) {
    makeLink(HOME + "/.", DOMAIN + "/dot");
    const std::string dot = DOMAIN + "/dot";
    safe_path::Location place;
    for (const std::string& path : {std::string(), std::string("/"), std::string("."),
                                    std::string(".."), HOME + "/", HOME + "/..", HOME + "/."}) {
        EXPECT_EQ(safe_path::locate(AT_FDCWD, path.c_str(), LastLink::keep, place), -1) << path;
        EXPECT_EQ(errno, EINVAL) << path;
    }
    EXPECT_EQ(safe_path::locate(AT_FDCWD, dot.c_str(), LastLink::follow, place), -1);
    EXPECT_EQ(errno, EINVAL);
    const std::string longName(NAME_MAX + 1, 'n');
    EXPECT_EQ(safe_path::locate(AT_FDCWD, longName.c_str(), LastLink::keep, place), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(SafePathTest, MakeDirectorySaysWhatItFound) {
    makeLink("/nowhere", HOME + "/dangling", POPUSER_UID);
    ::umask(027);
    const struct {
        std::string path;
        int result;
    } cases[] = {{HOME + "/new", 0}, {HOME + "/new", 1},      {HOME + "/slash/", 0},
                 {FILE_PATH, 1},     {HOME + "/dangling", 1}, {HOME + "/..", 1},
                 {"/", 1},           {HOME + "/a/b", -1}};
    for (const auto& [path, result] : cases)
        EXPECT_EQ(safe_path::makeDirectory(AT_FDCWD, path.c_str(), 0777), result) << path;
    EXPECT_EQ(modeOf(HOME + "/new"), "0750");
    EXPECT_FALSE(exists("/nowhere"));
}

TEST_F(SafePathTest, MakeDirectoriesMakesWhatIsMissing) {
    ::umask(077);
    const std::string path = MAILNAMES + "/d//e/../f/";
    const UniqueFd directory = safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0777);
    ASSERT_TRUE(directory);
    struct stat seen {};
    ASSERT_EQ(::fstat(directory.get(), &seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf(MAILNAMES + "/d/f"));
    EXPECT_EQ(modeOf(MAILNAMES + "/d"), "0700");
    EXPECT_TRUE(exists(MAILNAMES + "/d/e"));
    EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0777)), 0);
}

TEST_F(SafePathTest, MakeDirectoriesWorksRelativeToItsBase) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    EXPECT_EQ(errorOf(safe_path::makeDirectories(home.get(), "Maildir/cur", 0700)), 0);
    EXPECT_EQ(modeOf(HOME + "/Maildir/cur"), "0700");
}

TEST_F(SafePathTest, MakeDirectoriesMakesNothingBehindADanglingLink) {
    makeLink("/var/qmail/unmounted", DOMAIN + "/link");
    const std::string path = DOMAIN + "/link/home";
    EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0700)), ENOENT);
    EXPECT_FALSE(exists("/var/qmail/unmounted"));
}

TEST_F(SafePathTest, MakeDirectoriesFailsAsPlainCallsDo) {
    const struct {
        std::string path;
        int error;
    } cases[] = {{"", ENOENT},
                 {FILE_PATH, ENOTDIR},
                 {FILE_PATH + "/below", ENOTDIR},
                 {HOME + "/a/" + std::string(NAME_MAX + 1, 'n'), ENAMETOOLONG},
                 {std::string(PATH_MAX, '/'), ENAMETOOLONG}};
    for (const auto& [path, error] : cases)
        EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0700)), error) << path;
}

TEST_F(SafePathTest, RenameAndUnlinkActOnLinksThemselves) {
    makeLink(FILE_PATH, HOME + "/link", POPUSER_UID);
    ASSERT_EQ(safe_path::renameEntry(AT_FDCWD, (HOME + "/link").c_str(), (HOME + "/to").c_str()),
              0);
    EXPECT_EQ(std::filesystem::read_symlink(HOME + "/to"), FILE_PATH);
    ASSERT_EQ(safe_path::unlinkEntry(AT_FDCWD, (HOME + "/to").c_str()), 0);
    EXPECT_FALSE(exists(HOME + "/to"));
    EXPECT_EQ(contentsOf(FILE_PATH), "old\n");
}

TEST_F(SafePathTest, RemoveTreeRemovesAllAndFollowsNoLink) {
    writeFile(HOME + "/Maildir/cur/1", "mail");
    makeLink("/var/qmail/canary", HOME + "/Maildir/trusted");
    makeLink("/var/qmail/canary", HOME + "/Maildir/foreign", POPUSER_UID);
    writeFile("/var/qmail/canary/file", "alive");
    ASSERT_EQ(safe_path::removeTree(AT_FDCWD, DOMAIN.c_str()), 0);
    EXPECT_FALSE(exists(DOMAIN));
    EXPECT_EQ(contentsOf("/var/qmail/canary/file"), "alive");
}

TEST_F(SafePathTest, RemoveTreeOfALinkRemovesTheLink) {
    makeLink(HOME, DOMAIN + "/link");
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/link").c_str()), 0);
    EXPECT_FALSE(exists(DOMAIN + "/link"));
    EXPECT_TRUE(exists(FILE_PATH));
}

TEST_F(SafePathTest, RemoveTreeOfNothingIsNoFailure) {
    for (const std::string& path : {std::string(), HOME + "/missing", HOME + "/missing/below"})
        EXPECT_EQ(safe_path::removeTree(AT_FDCWD, path.c_str()), 0) << path;
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (FILE_PATH + "/below").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(SafePathTest, RemoveTreeStopsAtTheDepthLimit) {
    const auto nest = [](int depth) {
        UniqueFd directory = safe_path::openDirectory(AT_FDCWD, DOMAIN.c_str());
        for (int i = 0; i < depth && directory; ++i)
            directory = safe_path::makeDirectories(directory.get(), "d", 0700);
        ASSERT_TRUE(directory);
    };
    nest(safe_path::MAX_DEPTH);
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/d").c_str()), 0);
    nest(safe_path::MAX_DEPTH + 1);
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/d").c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(SafePathTest, EntriesComeWithoutDots) {
    writeFile(HOME + "/..odd", "");
    DirEntries entries = safe_path::openEntries(AT_FDCWD, HOME.c_str());
    ASSERT_TRUE(entries);
    std::vector<std::string> names;
    while (const auto* const entry = entries.next())
        names.emplace_back(entry->d_name);
    EXPECT_EQ(errno, 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"..odd", ".qmail"}));
}

TEST_F(SafePathTest, EntriesOfALastLinkAreReadOnlyWhenAsked) {
    makeLink(HOME, DOMAIN + "/link");
    const std::string link = DOMAIN + "/link";
    EXPECT_TRUE(safe_path::openEntries(AT_FDCWD, link.c_str()));
    EXPECT_FALSE(safe_path::openEntries(AT_FDCWD, link.c_str(), LastLink::keep));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(safe_path::openEntries(AT_FDCWD, (HOME + "/missing/x").c_str(), LastLink::keep));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafePathTest, LinkIsReadWhenItIsFollowed) {
    char target[PATH_MAX] = {};
    makeLink("elsewhere", DOMAIN + "/ours");
    makeLink("elsewhere", DOMAIN + "/his", POPUSER_UID);
    const auto read = [&](const char* name) {
        return safe_path::readTrustedLink(AT_FDCWD, (DOMAIN + name).c_str(), target, sizeof target);
    };
    EXPECT_EQ(read("/ours"), 9);
    EXPECT_STREQ(target, "elsewhere");
    EXPECT_EQ(read("/his"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(read("/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read("/missing/x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafePathTest, ChangeDirectoryEntersWhatMayBeSearchedOnly) {
    ASSERT_EQ(::chmod(HOME.c_str(), 0711), 0);
    const ProcessResult result = runForked([] {
        std::exit(asStranger([] { return safe_path::changeDirectory(HOME.c_str()) == 0; }));
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace corvo::test::paths
