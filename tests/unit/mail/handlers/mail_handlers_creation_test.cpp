#include "mail/handlers/mail_handlers_creation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "mail/handlers/mail_handlers_db.h"
#include "tests/support/disk.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "utils/guards.h"
#include "utils/log.h"

namespace corvo::test {
namespace {

using Rows = std::vector<std::string>;

const std::string FOLDER = "/var/lib/corvo/mail/handlers";
const std::string FILE_PATH = FOLDER + "/handlers.db";

class MailHandlersCreationTest : public LoggingTest {};

TEST_F(MailHandlersCreationTest, MakesFoldersSchemaOwnerAndMode) {
    const int before = openDescriptors();
    EXPECT_EQ(mh_db_create(), 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "0:" + std::to_string(POPUSER_GID));
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
    EXPECT_EQ(modeOf(FOLDER), "0755");
    EXPECT_EQ(namesIn(FOLDER), Rows{"handlers.db"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MailHandlersCreationTest, SchemaIsTheMailServers) {
    EXPECT_EQ(mh_db_create(), 0);
    EXPECT_EQ(
        sqliteRows(FILE_PATH, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL ORDER BY rowid"),
        (Rows{"CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority "
              "INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable "
              "VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL "
              "default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, "
              "address))",
              "CREATE INDEX idx1 ON handlers(queue, type, enabled, address)",
              "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority)",
              "CREATE INDEX idx3 ON handlers(name, queue, type, address)",
              "CREATE INDEX idx4 ON handlers(name, queue, type)"}));
}

TEST_F(MailHandlersCreationTest, WithoutPermissionsFileIsTheProcesss) {
    EXPECT_EQ(mh_db_create_no_set_permissions(), 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "0:0");
    EXPECT_EQ(modeOf(FILE_PATH), "0644");
}

TEST_F(MailHandlersCreationTest, ExistingDatabaseFailsAtScriptAndIsKept) {
    ASSERT_EQ(mh_db_create(), 0);
    sqliteExecute(FILE_PATH, "INSERT INTO handlers VALUES (1, 4, 1, 10, 'n', 'a', 'e', 'c', 0)");
    const std::string before = fingerprint(FOLDER);
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({"Unable to re-create mail handlers database: table handlers already exists"});
    EXPECT_EQ(fingerprint(FOLDER), before);
}

TEST_F(MailHandlersCreationTest, TextFileIsKept) {
    writeFile(FILE_PATH, "this is no database");
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({"Unable to re-create mail handlers database: file is not a database"});
    EXPECT_EQ(contentsOf(FILE_PATH), "this is no database");
}

TEST_F(MailHandlersCreationTest, DirectoryInPlaceOfFileIsReportedAndKept) {
    makeDirectory(FILE_PATH);
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    EXPECT_TRUE(exists(FILE_PATH));
}

TEST_F(MailHandlersCreationTest, ReportsScriptThatFailsWithoutText) {
    std::optional<NoSqliteMemory> none;
    const ConnectionHook hook([&](sqlite3*) { none.emplace(); });
    EXPECT_EQ(sqlite_db_create("/var/lib/corvo/x.db", "SELECT 1", "any"), -1);
    none.reset();
    expectLogged({"Unable to re-create any database"});
}

TEST_F(MailHandlersCreationTest, ReportsFolderThatCannotBeMade) {
    writeFile("/var/lib/corvo/mail", "in the way");
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({"Unable to create directories for mail handlers database (" + FILE_PATH +
                      "): Not a directory (20)",
                  {"Unable to create directory for mail handlers database for(" + FILE_PATH +
                       "): Not a directory",
                   2}});
}

TEST_F(MailHandlersCreationTest, ReportsReadOnlyFileSystem) {
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({"Unable to create directories for mail handlers database (" + FILE_PATH +
                      "): Read-only file system (30)",
                  {"Unable to create directory for mail handlers database for(" + FILE_PATH +
                       "): Read-only file system",
                   2}});
}

TEST_F(MailHandlersCreationTest, ReportsPathWithoutDirectory) {
    EXPECT_EQ(sqlite_create_db_path("", "any"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to get dirname for any database (): No such file or directory (2)"});
}

TEST_F(MailHandlersCreationTest, ReportsMissingMemory) {
    requireExhaustibleMemory();
    expectChildLogs({"Memory allocation error"}, [] {
        exhaustMemory();
        if (sqlite_create_db_path("/var/lib/corvo/a/b", "any") != -1)
            ::_exit(1);
    });
}

TEST_F(MailHandlersCreationTest, ExistingFoldersKeepTheirMode) {
    makeDirectory(FOLDER);
    ASSERT_EQ(::chmod(FOLDER.c_str(), 0711), 0);
    EXPECT_EQ(sqlite_create_db_path(FILE_PATH.c_str(), "any"), 0);
    EXPECT_EQ(modeOf(FOLDER), "0711");
}

// Owner and mode.

TEST_F(MailHandlersCreationTest, MissingGroupDeletesTheFile) {
    removeGroup("popuser");
    EXPECT_EQ(mh_db_create(), -1);
    expectLogged({{"Unable to get mail handlers group uid: Group not found", 2}});
    EXPECT_FALSE(exists(FILE_PATH));
}

TEST_F(MailHandlersCreationTest, OwnerOfMissingFileIsReported) {
    EXPECT_EQ(fix_mh_db_permissions("/var/lib/corvo/none"), -1);
    expectLogged({{"Unable to set owner on /var/lib/corvo/none: No such file or directory", 2}});
}

TEST_F(MailHandlersCreationTest, RefusedOwnerDeletesTheFile) {
    expectChildLogs({{"Unable to set owner on " + FILE_PATH + ": Operation not permitted", 2}}, [] {
        failSystemCall(SYS_fchownat, EPERM);
        if (mh_db_create() != -1 || errno != EPERM)
            ::_exit(1);
    });
    EXPECT_EQ(namesIn(FOLDER), Rows());
}

TEST_F(MailHandlersCreationTest, RefusedModeDeletesTheFile) {
    expectChildLogs(
        {{"Unable to set permissions on " + FILE_PATH + ": Operation not permitted", 2}}, [] {
            failSystemCall(SYS_chmod, EPERM);
            if (mh_db_create() != -1 || errno != EPERM)
                ::_exit(1);
        });
    EXPECT_EQ(namesIn(FOLDER), Rows());
}

TEST_F(MailHandlersCreationTest, PermissionsHavePriorityTwo) {
    expectChildLogs({{"Unable to get mail handlers group uid: Group not found", 2}}, [] {
        corvo_log_set_level(2);
        removeGroup("popuser");
        (void)mh_db_create();
        (void)mh_db_remove_name(nullptr, "not logged");
    });
}

TEST_F(MailHandlersCreationTest, OnlyARegularFileGetsOwnerAndMode) {
    const std::string secret = "/var/lib/corvo/secret";
    writeFile(secret, "", STRANGER_UID, STRANGER_GID, 0600);
    makeDirectory(FOLDER + "/folder");
    ASSERT_EQ(::chown(FOLDER.c_str(), POPUSER_UID, POPUSER_GID), 0);
    ASSERT_EQ(::mkfifo((FOLDER + "/pipe").c_str(), 0600), 0);
    ASSERT_EQ(::link(secret.c_str(), (FOLDER + "/hard-link").c_str()), 0);
    makeLink(secret, FOLDER + "/link", POPUSER_UID);
    const struct {
        std::string name;
        std::string reason;
    } cases[] = {{"folder", "Invalid argument"},
                 {"pipe", "Invalid argument"},
                 {"hard-link", "Operation not permitted"},
                 {"link", "Too many levels of symbolic links"}};
    for (const auto& [name, reason] : cases) {
        const std::string path = FOLDER + "/" + name;
        EXPECT_EQ(fix_mh_db_permissions(path.c_str()), -1);
        expectLogged({{"Unable to set owner on " + path + ": " + reason, 2}});
    }
    EXPECT_EQ(ownerOf(FOLDER + "/folder") + ownerOf(FOLDER + "/pipe"), "0:00:0");
    EXPECT_EQ(ownerOf(secret), std::to_string(STRANGER_UID) + ":" + std::to_string(STRANGER_GID));
    EXPECT_EQ(modeOf(secret), "0600");
}

// Locks.

TEST_F(MailHandlersCreationTest, LocksOfThisProcessOutliveOwnerAndMode) {
    ASSERT_EQ(mh_db_create_no_set_permissions(), 0);
    const corvo::UniqueFd database(::open(FILE_PATH.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(database.get(), F_SETLK, &lock), 0);

    EXPECT_EQ(fix_mh_db_permissions(FILE_PATH.c_str()), 0);

    EXPECT_EQ(modeOf(FILE_PATH), "0640");
    const ProcessResult other = runForked([&] {
        const corvo::UniqueFd file(::open(FILE_PATH.c_str(), O_RDWR | O_CLOEXEC));
        ::_exit(::fcntl(file.get(), F_SETLK, &lock) != 0 && errno == EAGAIN ? 0 : 1);
    });
    EXPECT_EQ(other.status, 0) << "the lock is gone";
}

TEST_F(MailHandlersCreationTest, ScriptThatWaitedForLockRunsOnce) {
    makeDirectory(FOLDER);
    writeFile(FILE_PATH, "");
    {
        const LockedByAnother lock(FILE_PATH, 300'000);
        EXPECT_EQ(mh_db_create(), 0);
    }
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT count(*) FROM sqlite_master WHERE type = 'table'"),
              Rows{"1"});
}

}  // namespace
}  // namespace corvo::test
