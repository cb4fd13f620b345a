// The mail handlers database: a SQLite file in which the mail server looks up which handler runs
// for which recipient, queue and hook type, and in which order.
//
// Functions return 0, or -1 on failure; the reason has then been logged, at priority 3 where none
// is stated. None throws. `db` is an open database, which stays open, or null: the function then
// opens mh_db_path for itself, read-only where it only reads. A locked file is waited for without
// limit. Records are not changed where nothing is said of it: their strings may then be borrowed.
//
// What opening mh_db_path changes in a process that uses SQLite for databases of its own is what
// mail/quota/mail_user_db.h says. An open database that is handed in changes nothing: it keeps the
// VFS, the mutex and the rights of its schema that it has.

#pragma once

#include <climits>
#include <span>

#include "mail/handlers/mail_handler.h"
#include "mail/sqlite/row_differences.h"

struct sqlite3;

/// Where the database is; "/var/lib/corvo/mail/handlers/handlers.db" at first.
extern char mh_db_path[PATH_MAX];

/// A statement that can be prepared, and need not be run, where the table is as these functions
/// need it: its columns and its key.
inline constexpr const char* MH_DB_PROBE =
    "INSERT INTO handlers (priority, name, type, address, queue, executable, context, protected, "
    "enabled) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) "
    "ON CONFLICT (queue, type, name, address) DO NOTHING";

/// Copies `path` into mh_db_path and returns that; null (ENAMETOOLONG) when it does not fit.
char* mh_db_path_set(const char* path) noexcept;

// Changes.

/// Inserts the record, or replaces the one with its queue, type, name and address. A global
/// handler's address must be null or "", which are stored as "all", or "all" or "all-recipients".
/// Leaves the record alone; it is not const so that this can be mh_db_do's callback.
int mh_db_add(sqlite3* db, mh_data* record) noexcept;

/// Deletes the row with the record's name, type, queue and address. A global handler, or a record
/// without an address, gets the address "all" (the record is changed) and is deleted whatever the
/// rows' addresses.
int mh_db_remove(sqlite3* db, mh_data* record) noexcept;

/// Delete all rows with the address, or with the name.
int mh_db_remove_addr(sqlite3* db, const char* address) noexcept;
int mh_db_remove_name(sqlite3* db, const char* name) noexcept;

/// Deletes the rows that mh_db_select_by_domain_name finds, in one transaction.
int mh_db_remove_all(sqlite3* db, const char* domain) noexcept;

/// Runs a statement that returns no rows and has one text parameter.
int mh_db_action(sqlite3* db, const char* parameter, const char* statement) noexcept;

/// Calls `callback` with the open database and each record, in the list's order, inside one
/// transaction. What the callbacks return is ignored, and one that fails does not stop the others,
/// unless SQLite takes the whole transaction back (no space, I/O error): nothing is then changed,
/// and what is logged is that callback's failure. One that ends the transaction itself does not
/// stop the others either, but then there is nothing to end, which is logged and -1; unless it has
/// begun another one, which is ended as the first. A database that is opened here has no mutex: it
/// is for the calling thread.
int mh_db_do(mh_list* list, sqlite3* db, int (*callback)(sqlite3*, mh_data*)) noexcept;

// Selections. They add to the list, which the caller has initialised and frees, in front: it ends
// up in the reverse order of the rows. A null context reads back as "none".

/// The handlers with the key's queue, type, enabled and address, best priority first (so last in
/// the list): executable, context and name from the row, the rest from the key. A global handler's
/// address must be null, which is "all", or "all" or "all-recipients". Addresses are cut to 501
/// bytes.
int mh_db_select(sqlite3* db, mh_list* list, const mh_data* key) noexcept;

/// Whole records (but for protect_on_restore) with the address, or, for an argument without "@",
/// those of the domain.
int mh_db_select_by_addr(sqlite3* db, mh_list* list, const char* address) noexcept;

/// Whole records (but for protect_on_restore) whose address is the domain or ends in "@" and the
/// domain, upper and lower case being alike.
int mh_db_select_by_domain_name(sqlite3* db, mh_list* list, const char* domain) noexcept;

/// How the rows with a name differ from what adding the records, all with that name and no two with
/// the same queue, type and address, would leave if there were none before: all nine columns.
/// Unlike other functions it is silent and does not wait.
corvo::mail::RowDifferences mh_db_name_differences(sqlite3* db, const char* name,
                                                   std::span<const mh_data> wanted) noexcept;
