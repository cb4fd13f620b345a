#include "driver/storage_flush.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>

#include "tests/support/disk.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

const std::string ONE = MAILNAMES + "/one.example";
const std::string TWO = MAILNAMES + "/two.example";
const std::string USERDB_FOLDER = "/var/lib/corvo/mail/userdb";
const std::string HANDLERS_FOLDER = "/var/lib/corvo/mail/handlers";

LoggedLine unflushed(const std::string& path, const std::string& reason = "Input/output error") {
    return "Unable to flush " + path + ": " + reason;
}

// Since a flush that fails is told, those that are made can be counted by making them fail.
class StorageFlushTest : public LoggingTest {
protected:
    StorageFlushTest() : otherDisk(TWO, 64) {
        installMailServer();
        for (const std::string& home : {ONE + "/a", ONE + "/b", TWO + "/a", TWO + "/b"})
            makeDirectory(home);
    }

    // Both flushes fail from here on.
    static void failAll(int error) {
        failSystemCall(SYS_syncfs, error);
        failSystemCall(SYS_fsync, error);
    }

    SmallDisk otherDisk;
    StorageFlush storage;
};

TEST_F(StorageFlushTest, EndsWithoutAWordWhereAllCanBeFlushed) {
    storage.note(ONE + "/a");
    storage.note(TWO + "/a");
    storage.flush();
}

TEST_F(StorageFlushTest, FlushesEachFileSystemOnceByTheHomeMetFirst) {
    for (const std::string& home : {TWO + "/b", TWO + "/a", TWO + "/b"})
        storage.note(home);
    expectChildLogs({unflushed(TWO + "/b")}, [&] {
        failSystemCall(SYS_syncfs, EIO);
        storage.flush();
    });

    storage.note(ONE + "/a");
    storage.note(ONE + "/b");
    const ProcessResult both = runForked([&] {
        failSystemCall(SYS_syncfs, EIO);
        storage.flush();
    });
    EXPECT_EQ(both.status, 0);
    EXPECT_EQ(both.err, both.out);
    EXPECT_EQ(std::count(both.err.begin(), both.err.end(), '\n'), 2);
    EXPECT_NE(both.err.find(textOf({unflushed(ONE + "/a")})), std::string::npos);
    EXPECT_NE(both.err.find(textOf({unflushed(TWO + "/b")})), std::string::npos);
}

TEST_F(StorageFlushTest, FlushesTheFileSystemThatWasMet) {
    storage.note(TWO + "/a");
    std::filesystem::remove_all(TWO + "/a");
    expectChildLogs({unflushed(TWO + "/a")}, [&] {
        failSystemCall(SYS_syncfs, EIO);
        storage.flush();
    });
}

TEST_F(StorageFlushTest, FlushesTheFolderOfEachDatabaseAlsoWithoutHomes) {
    expectChildLogs({unflushed(USERDB_FOLDER), unflushed(HANDLERS_FOLDER)}, [&] {
        failAll(EIO);
        storage.flush();
    });
}

TEST_F(StorageFlushTest, FolderThatIsMissingIsPassedOverInSilence) {
    std::filesystem::remove_all(USERDB_FOLDER);
    expectChildLogs({unflushed(HANDLERS_FOLDER)}, [&] {
        failAll(EIO);
        storage.flush();
    });
    std::filesystem::remove_all("/var/lib/corvo/mail");
    storage.flush();
    writeFile("/var/lib/corvo/mail", "");
    storage.flush();
}

TEST_F(StorageFlushTest, FolderThatCannotBeOpenedIsTold) {
    expectChildLogs({unflushed(USERDB_FOLDER, "Permission denied"),
                     unflushed(HANDLERS_FOLDER, "Permission denied")},
                    [&] {
                        failSystemCall(SYS_openat2, EACCES);
                        storage.flush();
                    });
}

TEST_F(StorageFlushTest, HomeThatIsNoDirectoryIsOnNoFileSystem) {
    writeFile(ONE + "/file", "");
    makeLink(TWO + "/a", ONE + "/link", POPUSER_UID);
    for (const std::string& home : {ONE + "/missing", ONE + "/file", ONE + "/link"})
        storage.note(home);
    expectChildLogs({unflushed(USERDB_FOLDER), unflushed(HANDLERS_FOLDER)}, [&] {
        failAll(EIO);
        storage.flush();
    });
}

TEST_F(StorageFlushTest, OnlyFileSystemsThatTakeNoChangesAreSilent) {
    storage.note(ONE + "/a");
    const auto flushFailing = [&](int error) {
        return [this, error] {
            failAll(error);
            storage.flush();
        };
    };
    expectChildLogs({}, flushFailing(EROFS));
    for (const auto& [error, reason] :
         {std::pair(ENOSPC, "No space left on device"), std::pair(EDQUOT, "Disk quota exceeded")})
        expectChildLogs({unflushed(ONE + "/a", reason), unflushed(USERDB_FOLDER, reason),
                         unflushed(HANDLERS_FOLDER, reason)},
                        flushFailing(error));
}

}  // namespace
}  // namespace corvo::test
