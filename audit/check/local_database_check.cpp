#include <fcntl.h>
#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/processes.h"
#include "audit/check/subject.h"
#include "audit/disk.h"
#include "mail/handlers/mail_handlers_db.h"
#include "mail/quota/mail_user_db.h"
#include "mail/sqlite/sqlite_session.h"
#include "mail/sqlite/sqlite_state.h"
#include "utils/accounts.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using mail::SqliteAccess;
using mail::SqliteSession;
using mail::SqliteState;
using mail::SqliteStatement;
using mail::SqliteStep;
using mail::SqliteUse;

// A lock that came just now would be taken for damage.
constexpr const char* REBUILDING =
    "unless somebody is at work on it now, move it away and rebuild it";

// What a run leaves where there was no database.
constexpr const char* COMPLETING = "complete it where it lies: make its table";

// A table and the index of its key.
constexpr int OBJECTS_OF_THE_USER_DATABASE = 2;

std::optional<uid_t> uidOfPopuser() {
    const passwd* const user = ::getpwnam(POPUSER);
    return user != nullptr ? std::optional(user->pw_uid) : std::nullopt;
}

// One of the two.
struct Database {
    const char* subject;
    std::string path;
    std::optional<uid_t> owner;  // empty: the account is missing
    const char* ownerAndMode;    // as advised
    const char* probe;           // prepares where the schema is right
};

std::string holderOf(const SqliteState& state) {
    if (state.holder <= 0)
        return "another process";
    const std::string name = nameOfProcess(state.holder);
    return "process " + std::to_string(state.holder) + (name.empty() ? "" : " (" + name + ")");
}

// What a journal says depends on who is at work.
void reportJournal(const Subject& subject, const Database& database, const SqliteState& state) {
    if (state.isLocked)
        subject.warning("a transaction is under way: " + holderOf(state) + " holds a lock",
                        "let it end, and check again");
    else
        subject.warning("an interrupted transaction waits in " + database.path +
                            "-journal, and readers fail until it is rolled back",
                        "sqlite3 " + database.path + " 'BEGIN IMMEDIATE; ROLLBACK;'");
}

// False when SQLite must not open the database.
bool judgeState(const Subject& subject, const Database& database, const SqliteState& state) {
    if (state.wal) {
        subject.say(
            state.sharedMemory ? Verdict::problem : Verdict::warning,
            "in WAL mode: a run refuses it while others have it open",
            "end who has it open; sqlite3 " + database.path + " 'PRAGMA journal_mode=DELETE'");
    } else if (state.journal) {
        reportJournal(subject, database, state);
    } else if (state.isLocked) {
        subject.warning(holderOf(state) + " holds a lock, and a run waits for it without limit",
                        "let it end, and check again");
    } else {
        return true;
    }
    return false;
}

// Empty where the statement can be prepared, else SQLite's reason.
std::string objectionTo(const SqliteSession& session, const char* statement) {
    if (!session)
        return "cannot be opened";
    const SqliteStatement prepared(session, statement, SqliteUse::look);
    return prepared ? "" : session.error();
}

// How many tables and indexes there are; empty where they cannot be counted.
std::optional<int> countObjects(const SqliteSession& session) {
    SqliteStatement count(session, "SELECT COUNT(*) FROM sqlite_master", SqliteUse::look);
    return count && count.step() == SqliteStep::row ? std::optional(count.integer(0))
                                                    : std::nullopt;
}

bool judgeSchema(const Subject& subject, const Database& database, const SqliteSession& session) {
    const std::string objection = objectionTo(session, database.probe);
    if (!objection.empty())
        subject.problem(objection, countObjects(session) == 0 ? COMPLETING : REBUILDING);
    return objection.empty();
}

bool judgeOwner(const Subject& subject, const Database& database, const SqliteState& state) {
    const bool isWritable = (state.database.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (database.owner && *database.owner == state.database.st_uid && !isWritable)
        return true;
    subject.problem(database.path + " should be " + database.ownerAndMode + ", and is " +
                        ownerAndMode(state.database),
                    "set its owner and mode");
    return false;
}

bool judgeFolder(const Subject& subject, const Database& database) {
    const std::string folder = std::filesystem::path(database.path).parent_path();
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, folder.c_str(), seen) != 0)
        subject.unreadable(folder, errno);
    else if (mayOthersWrite(seen))
        subject.problem(folder + " can be changed by others: " + ownerAndMode(seen),
                        "chown root " + folder + "; chmod go-w " + folder);
    else if (isOnReadOnlyDisk(folder))
        subject.problem(folder + " is mounted read-only: a run can repair nothing in it",
                        adviceToRemount(folder));
    else
        return true;
    return false;
}

// popuser can fill its database with tables that each mailbox's row has to wait for.
bool judgeSize(const Subject& subject, const Database& database, const SqliteSession& session) {
    const std::optional<int> objects = countObjects(session);
    if (!objects) {
        subject.problem(session.error(), REBUILDING);
        return false;
    }
    if (*objects <= OBJECTS_OF_THE_USER_DATABASE || database.probe != mail::MAIL_USER_DB_PROBE)
        return true;
    subject.warning("holds " + std::to_string(*objects) + " tables and indexes in place of " +
                        std::to_string(OBJECTS_OF_THE_USER_DATABASE),
                    REBUILDING);
    return false;
}

bool judgeContents(const Subject& subject, const Database& database) {
    const SqliteSession session(database.path.c_str(), SqliteAccess::readOnly, SqliteUse::look);
    return judgeSchema(subject, database, session) && judgeSize(subject, database, session);
}

void checkDatabase(const CheckSink& sink, const Database& database) {
    const Subject subject(sink, database.subject);
    SqliteState state;
    if (!lookAtSqlite(database.path.c_str(), state)) {
        if (errno == ENOENT)
            subject.problem(database.path + " is not there", "rebuild it");
        else
            subject.unreadable(database.path, errno);
        return;
    }
    if (!judgeFolder(subject, database))
        return;
    const bool isOwned = judgeOwner(subject, database, state);
    if (judgeState(subject, database, state) && judgeContents(subject, database) && isOwned)
        subject.ok(database.path);
}

}  // namespace

void checkLocalDatabases(const CheckSink& sink) {
    checkDatabase(sink, {"user database", mail::MAIL_USER_DB, uidOfPopuser(),
                         "popuser:popuser 0644", mail::MAIL_USER_DB_PROBE});
    checkDatabase(sink, {"handlers database", mh_db_path, 0, "root:popuser 0640", MH_DB_PROBE});
}

}  // namespace corvo::audit
