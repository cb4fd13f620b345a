// A run over storage in which nothing is to be changed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/integration/instrumented.h"
#include "tests/integration/whole_run_fixture.h"
#include "tests/support/disk.h"
#include "tests/support/failing_call.h"
#include "tests/support/system_calls.h"

namespace corvo::test {
namespace {

const std::string USERDB_FOLDER = "/var/lib/corvo/mail/userdb";
const std::string HANDLERS_FOLDER = "/var/lib/corvo/mail/handlers";

class SoundStorageTest : public runs::WholeRunTest {
protected:
    SoundStorageTest() {
        loadSample(panel);
        const ProcessResult first = mailRebuild();
        EXPECT_EQ(first.status, 0);
        restored = restoredState();
    }

    // What a run says while a system call fails, in streams and status.
    static ProcessResult mailRebuildFailing(long call, int error, const char* mode) {
        return runForked([&] {
            failSystemCall(call, error);
            ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
            ::execl(mailRebuildBinary().c_str(), "mail_rebuild", mode, nullptr);
            ::_exit(127);
        });
    }

    std::string restored;
};

// --- on a disk that takes no changes

TEST_F(SoundStorageTest, NeedsNoDiskThatTakesChanges) {
    const ProcessResult second = mailRebuild();
    const ReadOnlyDisk storage("/var/qmail");
    const ReadOnlyDisk databases("/var/lib/corvo");

    const ProcessResult further = mailRebuild();

    EXPECT_EQ(further.status, 0);
    EXPECT_EQ(further.err, second.err);
    EXPECT_EQ(further.out, second.out);
    EXPECT_EQ(further.err.find("failed"), std::string::npos);
    EXPECT_EQ(further.err.find("nable to"), std::string::npos);
    EXPECT_EQ(further.out, "");
    EXPECT_EQ(restoredState(), restored);
}

TEST_F(SoundStorageTest, DamageOnADiskThatTakesNoChangesIsTold) {
    writeFile(home("info", "example.com") + "/.qmail", "./Maildir/\n", POPUSER_UID, POPUSER_GID,
              0600);
    const ReadOnlyDisk storage("/var/qmail");
    const ReadOnlyDisk databases("/var/lib/corvo");

    const ProcessResult further = mailRebuild();

    EXPECT_EQ(further.status, 0);
    EXPECT_NE(further.err.find("registering mailbox for info@example.com failed"),
              std::string::npos);
    EXPECT_NE(further.err.find("Read-only file system"), std::string::npos);
}

// --- flushed all the same, because the run before may have been killed

class FlushesOfASoundStorageTest : public SoundStorageTest {
protected:
    // Moves a domain to a file system of its own.
    FlushesOfASoundStorageTest() : otherDisk(MAILNAMES + "/other.example", 512) {
        panel.domain("other.example").mailname("info").quota(1000);
        EXPECT_EQ(mailRebuild().status, 0);
    }

    void SetUp() override {
        if (INSTRUMENTED)
            GTEST_SKIP() << "an instrumented program is not to be traced";
    }

    SmallDisk otherDisk;
};

TEST_F(FlushesOfASoundStorageTest, AreOneForEachFileSystemAndDatabaseFolder) {
    const SystemCalls calls({mailRebuildBinary(), "--all"});
    EXPECT_EQ(calls.result().status, 0);
    EXPECT_EQ(calls.count("syncfs"), 2);
    EXPECT_EQ(calls.count("fsync"), 2);
    EXPECT_EQ(calls.count("fdatasync"), 0);
}

TEST_F(FlushesOfASoundStorageTest, IncludeThatOfADomainWithoutMailNames) {
    const SmallDisk disk(MAILNAMES + "/empty.example", 512);
    panel.domain("empty.example");
    const SystemCalls calls({mailRebuildBinary(), "--all"});
    EXPECT_EQ(calls.count("syncfs"), 3);
}

TEST_F(FlushesOfASoundStorageTest, AreNoneOfPlacesOutsideTheStorage) {
    panel.domain("third.example").mailname("../../../../proc");
    const SystemCalls calls({mailRebuildBinary(), "--all"});
    EXPECT_EQ(calls.given("open", "\"proc\""), 0);
    EXPECT_EQ(calls.count("syncfs"), 2);
}

TEST_F(FlushesOfASoundStorageTest, AreThoseOfTheDatabaseFoldersAloneWithHandlersOnly) {
    const SystemCalls calls({mailRebuildBinary(), "--fast"});
    EXPECT_EQ(calls.result().status, 0);
    EXPECT_EQ(calls.count("syncfs"), 0);
    EXPECT_EQ(calls.count("fsync"), 2);
    EXPECT_EQ(calls.count("fdatasync"), 0);
}

TEST_F(FlushesOfASoundStorageTest, LeaveTheStatusWhereTheyFail) {
    const std::string text = "Unable to flush " + USERDB_FOLDER + ": Input/output error\n" +
                             "Unable to flush " + HANDLERS_FOLDER + ": Input/output error\n";
    for (const char* const mode : {"--all", "--fast"}) {
        SCOPED_TRACE(mode);
        const ProcessResult quiet = mailRebuild({mode});
        const ProcessResult failing = mailRebuildFailing(SYS_fsync, EIO, mode);
        EXPECT_EQ(failing.status, 0);
        EXPECT_EQ(failing.err, quiet.err + text);
        EXPECT_EQ(failing.out, quiet.out + text);
    }
}

TEST_F(FlushesOfASoundStorageTest, AreSilentWhereTheStorageTakesNoChanges) {
    const ProcessResult quiet = mailRebuild();
    for (const long call : {SYS_fsync, SYS_syncfs}) {
        const ProcessResult failing = mailRebuildFailing(call, EROFS, "--all");
        EXPECT_EQ(failing.status, 0);
        EXPECT_EQ(failing.err, quiet.err);
        EXPECT_EQ(failing.out, quiet.out);
    }
}

}  // namespace
}  // namespace corvo::test
