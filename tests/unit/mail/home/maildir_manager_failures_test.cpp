// Homes that cannot be made as wanted.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "mail/home/fs_error.h"
#include "mail/home/maildir_manager.h"
#include "tests/support/capabilities.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/home/maildir_manager_fixture.h"

namespace corvo::test::homes {
namespace {

TEST_F(MaildirManagerTest, FileInPlaceOfTheDomainRootIsAFileSystemError) {
    writeFile(ROOT, "in the way");
    const Thrown thrown = failureOf(createRoot);
    EXPECT_EQ(thrown.error, ENOTDIR);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot create directories: Not a directory [" + ROOT + "]");
    EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0644 0:0");
}

TEST_F(MaildirManagerTest, FileInPlaceOfAnEntryStopsThereAndKeepsWhatWasMade) {
    for (std::size_t i = 0; i < SKELETON.size(); ++i) {
        SCOPED_TRACE(SKELETON[i]);
        resetSandbox();
        const std::string blocked = HOME + "/" + SKELETON[i];
        writeFile(blocked, "in the way");
        const int descriptors = openDescriptors();
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, EEXIST);
        EXPECT_EQ(thrown.path1, blocked);
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_EQ(contentsOf(blocked), "in the way");
        EXPECT_EQ(ownerOf(blocked), "0:0");
        for (std::size_t made = 0; made < i; ++made)
            EXPECT_EQ(ownerOf(HOME + "/" + SKELETON[made]), popuser()) << SKELETON[made];
        for (std::size_t later = i + 1; later < SKELETON.size(); ++later)
            EXPECT_FALSE(exists(HOME + "/" + SKELETON[later])) << SKELETON[later];
        EXPECT_EQ(currentUmask(), 022U);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(MaildirManagerTest, PipeInPlaceOfAnEntryDoesNotBlock) {
    makeDirectory(HOME + "/Maildir");
    ASSERT_EQ(::mkfifo((HOME + "/Maildir/new").c_str(), 0600), 0);
    const Thrown thrown = failureOf(createHome);
    EXPECT_EQ(thrown.error, EEXIST);
    EXPECT_EQ(thrown.path1, HOME + "/Maildir/new");
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot create directory: File exists [" + HOME + "/Maildir/new]");
}

TEST_F(MaildirManagerTest, LinkOfRootInPlaceOfAnEntryMustLeadToADirectory) {
    const struct {
        const char* target;
        int error;
    } cases[] = {{"/nowhere", EEXIST}, {"/etc/passwd", EEXIST}, {"new", ELOOP}};
    for (const auto& [target, error] : cases) {
        SCOPED_TRACE(target);
        resetSandbox();
        makeLink(target, HOME + "/Maildir/new");
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, error);
        EXPECT_EQ(thrown.path1, HOME + "/Maildir/new");
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_FALSE(exists("/nowhere"));
        EXPECT_EQ(ownerOf("/etc/passwd"), "0:0");
    }
}

TEST_F(MaildirManagerTest, OwnerThatCannotBeSetIsAnFSErrorWithItsPath) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/.Sent/new", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        makeDirectory(HOME + entry);
        const ReadOnlyDisk disk(HOME + entry);
        const int descriptors = openDescriptors();
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, EROFS);
        EXPECT_TRUE(thrown.isFSError);
        EXPECT_EQ(thrown.path1, HOME + entry);
        EXPECT_EQ(thrown.text.find("filesystem error: chown: Read-only file system ["), 0U);
        EXPECT_EQ(currentUmask(), 022U);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(MaildirManagerTest, DirectoryThatCannotBeMadeIsAFileSystemError) {
    const ReadOnlyDisk disk(MAILNAMES);
    const Thrown thrown = failureOf(createRoot);
    EXPECT_EQ(thrown.error, EROFS);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(currentUmask(), 022U);
}

TEST_F(MaildirManagerTest, EntryThatCannotBeMadeIsAFileSystemError) {
    const SmallDisk disk(MAILNAMES, 0, 8);
    const Thrown thrown = failureOf(createHome);
    EXPECT_EQ(thrown.error, ENOSPC);
    EXPECT_FALSE(thrown.isFSError);
    // The file system's root, the domain, the home and five entries.
    EXPECT_EQ(thrown.path1, HOME + "/" + SKELETON[5]);
    EXPECT_EQ(ownerOf(HOME + "/" + SKELETON[4]), popuser());
    EXPECT_EQ(currentUmask(), 022U);
}

TEST_F(MaildirManagerTest, ModeThatCannotBeSetIsAnFSErrorWithItsPath) {
    const Thrown thrown = failureOf([] {
        const WithoutCapabilities powerless({CAP_FOWNER});
        createRoot();
    });
    EXPECT_EQ(thrown.error, EPERM);
    EXPECT_TRUE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.text, "filesystem error: chmod: Operation not permitted [" + ROOT + "]");
    EXPECT_EQ(ownerOf(ROOT), popuser());
    EXPECT_EQ(currentUmask(), 022U);
}

/// While it lives, the first calls of this name are interrupted by a signal.
class Interrupted {
public:
    Interrupted(std::string call, int times) {
        letThrough = [this, call = std::move(call), times](const char* called) {
            if (call != called || count_ == times)
                return true;
            ++count_;
            errno = EINTR;
            return false;
        };
    }
    ~Interrupted() { letThrough = nullptr; }
    Interrupted(const Interrupted&) = delete;
    Interrupted& operator=(const Interrupted&) = delete;

    int count() const { return count_; }

private:
    int count_ = 0;
};

TEST_F(MaildirManagerTest, InterruptedOwnersAndModesAreSetAgain) {
    for (const std::string call : {"chown", "chmod"}) {
        SCOPED_TRACE(call);
        resetSandbox();
        const Interrupted signals(call, 5);
        createRoot();
        createHome();
        EXPECT_EQ(signals.count(), 5);
        EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0750 " + popuser());
        EXPECT_EQ(listTree(HOME), listOfNewHome());
    }
}

TEST_F(MaildirManagerTest, InterruptedLookBeforeABackupIsRepeated) {
    createRoot();
    const std::string saved = "example.com.CorvoSaved." + std::to_string(inodeOf(ROOT));
    const Interrupted signals("stat", 3);
    manager().backupDomainRoot("example.com");
    EXPECT_EQ(signals.count(), 3);
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{saved});
}

}  // namespace
}  // namespace corvo::test::homes
