// Renaming, backups and removal.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "mail/home/fs_error.h"
#include "mail/home/maildir_manager.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/home/maildir_manager_fixture.h"

namespace corvo::test::homes {
namespace {

TEST_F(MaildirManagerTest, RenamedDomainRootKeepsAllThatIsInIt) {
    createHome();
    const std::string before = fingerprint(ROOT);
    manager().renameDomainRoot("Example.com", "Example.NET");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"example.net"});
    EXPECT_EQ(fingerprint(MAILNAMES + "/example.net"), before);
}

TEST_F(MaildirManagerTest, RenamedHomeKeepsAllThatIsInIt) {
    createHome();
    manager().renameMailnameHome("example.com", "INFO", "Sales");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{"sales"});
    EXPECT_EQ(listTree(ROOT + "/sales"), listOfNewHome());
}

TEST_F(MaildirManagerTest, RenamingWhatIsMissingIsAFileSystemErrorWithBothPaths) {
    const Thrown thrown = failureOf([] { manager().renameDomainRoot("example.com", "b"); });
    EXPECT_EQ(thrown.error, ENOENT);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, MAILNAMES + "/b");
    EXPECT_EQ(thrown.text, "filesystem error: cannot rename: No such file or directory [" + ROOT +
                               "] [" + MAILNAMES + "/b]");
}

TEST_F(MaildirManagerTest, RenamingOntoAFullDirectoryFailsAndChangesNothing) {
    createHome();
    writeFile(ROOT + "/sales/file", "kept");
    const std::string before = fingerprint(MAILNAMES);
    const Thrown thrown =
        failureOf([] { manager().renameMailnameHome("example.com", "info", "sales"); });
    EXPECT_EQ(thrown.error, ENOTEMPTY);
    EXPECT_EQ(fingerprint(MAILNAMES), before);
}

TEST_F(MaildirManagerTest, BackupOfADomainRootIsNamedAfterItsInode) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    const std::string before = fingerprint(ROOT);
    manager().backupDomainRoot("Example.COM");
    EXPECT_FALSE(exists(ROOT));
    EXPECT_EQ(fingerprint(saved), before);
}

TEST_F(MaildirManagerTest, BackupOfAHomeIsNamedAfterItsInode) {
    createHome();
    const std::string saved = "info.CorvoSaved." + std::to_string(inodeOf(HOME));
    manager().backupMailnameHome("example.com", "info");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{saved});
}

TEST_F(MaildirManagerTest, BackupOfWhatIsNotThereDoesNothing) {
    EXPECT_NO_THROW(manager().backupDomainRoot("example.com"));
    EXPECT_NO_THROW(manager().backupMailnameHome("example.com", "info"));
    EXPECT_EQ(listTree(MAILNAMES), "");
}

TEST_F(MaildirManagerTest, BackupBelowAFileDoesNothing) {
    writeFile(ROOT, "no directory");
    EXPECT_NO_THROW(manager().backupMailnameHome("example.com", "info"));
    EXPECT_EQ(contentsOf(ROOT), "no directory");
}

TEST_F(MaildirManagerTest, BackupOfWhatCannotBeLookedAtIsAnFSErrorWithAnEmptySecondPath) {
    makeLink(OUTSIDE, ROOT, POPUSER_UID);
    const Thrown thrown = failureOf([] { manager().backupDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, ELOOP);
    EXPECT_TRUE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, "");
    EXPECT_EQ(thrown.text.find("filesystem error: rename: Too many levels of symbolic links"), 0U);
}

TEST_F(MaildirManagerTest, BackupThatCannotBeRenamedIsAFileSystemError) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    writeFile(saved + "/file", "in the way");
    const Thrown thrown = failureOf([] { manager().backupDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, ENOTEMPTY);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, saved);
    EXPECT_EQ(listTree(HOME), listOfNewHome());
}

TEST_F(MaildirManagerTest, RemovedDomainRootLeavesNothing) {
    createHome();
    writeFile(HOME + "/Maildir/new/1", "mail");
    manager().createDomainRoot("example.net");
    manager().removeDomainRoot("Example.COM");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"example.net"});
}

TEST_F(MaildirManagerTest, RemovedHomeLeavesTheOthers) {
    createHome();
    manager().createMailnameHome("example.com", "sales");
    writeFile(HOME + "/Maildir/new/1", "mail");
    manager().removeMailnameHome("example.com", "INFO");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{"sales"});
    EXPECT_EQ(listTree(ROOT + "/sales"), listOfNewHome());
}

TEST_F(MaildirManagerTest, RemovingWhatIsNotThereDoesNothing) {
    EXPECT_NO_THROW(manager().removeDomainRoot("example.com"));
    EXPECT_NO_THROW(manager().removeMailnameHome("example.com", "info"));
    EXPECT_EQ(listTree(MAILNAMES), "");
}

TEST_F(MaildirManagerTest, RemovalFollowsNoLinkOutOfTheTree) {
    createHome();
    makeLink(OUTSIDE, HOME + "/Maildir/new/link", POPUSER_UID);
    makeLink(OUTSIDE, HOME + "/Maildir/.Outside");
    makeLink(OUTSIDE + "/file", HOME + "/file");
    const std::string before = fingerprint(OUTSIDE);
    manager().removeMailnameHome("example.com", "info");
    EXPECT_FALSE(exists(HOME));
    EXPECT_EQ(fingerprint(OUTSIDE), before);
}

TEST_F(MaildirManagerTest, RemovalOfALinkedDomainRootRemovesTheLinkOnly) {
    for (const uid_t owner : {uid_t{0}, POPUSER_UID}) {
        makeLink(OUTSIDE, ROOT, owner);
        manager().removeDomainRoot("example.com");
        EXPECT_EQ(listTree(MAILNAMES), "") << owner;
        EXPECT_EQ(contentsOf(OUTSIDE + "/file"), "kept\n");
    }
}

TEST_F(MaildirManagerTest, NameIsFreeEvenWhenTheRemovalStops) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    // What is mounted cannot be removed.
    const SmallDisk disk(HOME, 0);
    const Thrown thrown = failureOf([] { manager().removeDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, EBUSY);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, saved);
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot remove all: Device or resource busy [" + saved + "]");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{fs::path(saved).filename().string()});
}

TEST_F(MaildirManagerTest, RemovalLeavesNoDescriptorOpen) {
    createHome();
    const int before = openDescriptors();
    manager().removeDomainRoot("example.com");
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace corvo::test::homes
