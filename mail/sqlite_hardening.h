// SQLite run by root on files that popuser owns, and may have filled with what it likes.
//
// Left alone, SQLite gives each journal, log and shared memory that it makes to the owner of the
// database, who can then have any file deleted (a journal may name a "super-journal" to delete) and
// this process killed (by cutting the memory that it has mapped). It also follows links, which the
// owner of the folder may plant. Nothing here logs or throws. It costs no statement, and one system
// call for each file that is opened.

#pragma once

struct sqlite3;

namespace corvo::mail {

/// From the first call on, for all connections that this process opens: files that SQLite makes
/// stay the running user's, who alone may write them, so what a killed run leaves behind waits for
/// root to roll it back; links are followed as utils/safe_path.h says, and foreign hard links are
/// refused, as are shared memory that others may write and every super-journal (we attach no
/// databases, so none is ours). False when that cannot be had.
[[nodiscard]] bool hardenSqlite() noexcept;

/// For one connection: the schema runs no code of its own (triggers, views, virtual tables,
/// functions with side effects), and no value is longer than 1 MiB.
void hardenConnection(sqlite3* database) noexcept;

}  // namespace corvo::mail
