// The local databases of the floor program: a connection and a transaction of its own for every
// row.

#include <fcntl.h>
#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include "bench/floor.h"

#define USERDB_FOLDER "/var/lib/corvo/mail/userdb"
#define HANDLERS_FOLDER "/var/lib/corvo/mail/handlers"
static const char USERDB[] = USERDB_FOLDER "/userdb.db";
static const char HANDLERS[] = HANDLERS_FOLDER "/handlers.db";

static int repeatWhileBusy(sqlite3_stmt* statement) {
    int result = sqlite3_step(statement);
    for (long delay = 0; result == SQLITE_BUSY; delay += 10000) {
        sqlite3_reset(statement);
        if (delay > 0)
            nanosleep(&(struct timespec){delay / 1000000000, delay % 1000000000}, NULL);
        result = sqlite3_step(statement);
    }
    return result;
}

static void step(sqlite3* database, sqlite3_stmt* statement) {
    if (repeatWhileBusy(statement) != SQLITE_DONE || sqlite3_finalize(statement) != SQLITE_OK)
        fail("SQLite", sqlite3_errmsg(database));
}

static sqlite3* openDatabase(const char* path) {
    sqlite3* database = NULL;
    if (sqlite3_open(path, &database) != SQLITE_OK)
        fail(path, sqlite3_errmsg(database));
    sqlite3_busy_timeout(database, 50);
    return database;
}

static sqlite3_stmt* prepare(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = NULL;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, NULL) != SQLITE_OK)
        fail(sql, sqlite3_errmsg(database));
    return statement;
}

void storeQuotaRow(const char* domain, const char* mailname, long long quota) {
    char text[32];
    format(text, sizeof text, "%lldB", quota < 0 ? 0 : quota);
    sqlite3* const database = openDatabase(USERDB);
    step(database, prepare(database, "BEGIN TRANSACTION;"));
    sqlite3_stmt* const replace = prepare(
        database, "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)");
    sqlite3_bind_text(replace, 1, domain, -1, SQLITE_STATIC);
    sqlite3_bind_text(replace, 2, mailname, -1, SQLITE_STATIC);
    sqlite3_bind_text(replace, 3, text, -1, SQLITE_STATIC);
    step(database, replace);
    step(database, prepare(database, "END TRANSACTION;"));
    sqlite3_close(database);
}

static void removeHandler(void) {
    sqlite3* const database = openDatabase(HANDLERS);
    sqlite3_stmt* const delete = prepare(database, "DELETE FROM handlers WHERE name=?");
    sqlite3_bind_text(delete, 1, "check-quota", -1, SQLITE_STATIC);
    step(database, delete);
    sqlite3_close(database);
}

static void addHandler(int queue, bool permanent) {
    sqlite3* const database = openDatabase(HANDLERS);
    sqlite3_stmt* const insert =
        prepare(database,
                "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, "
                "context, "
                "protected, enabled) VALUES(10, 'check-quota', 4, LOWER('all-recipients'), ?, "
                "'/usr/local/vhc/handlers/hooks/check-quota', ?, 0, 1)");
    sqlite3_bind_int(insert, 1, queue);
    sqlite3_bind_text(insert, 2, permanent ? "permanent" : "none", -1, SQLITE_STATIC);
    step(database, insert);
    sqlite3_close(database);
}

void replaceHandlers(bool reject, bool permanent) {
    removeHandler();
    if (!reject)
        return;
    addHandler(1, permanent);
    addHandler(4, permanent);
}

// SQLite removes a journal without a flush of the folder that it lay in.
static void flushFolder(const char* path) {
    const int folder = check(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
    check(fsync(folder), path);
    close(folder);
}

void flushDatabaseFolders(void) {
    flushFolder(USERDB_FOLDER);
    flushFolder(HANDLERS_FOLDER);
}
