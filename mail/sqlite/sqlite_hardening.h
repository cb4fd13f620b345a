// SQLite run by root on files that popuser owns, and may have filled with what it likes.
//
// Left alone, SQLite gives each journal, log and shared memory that it makes to the owner of the
// database, who can then have any file deleted (a journal may name a "super-journal" to delete) and
// this process killed (by cutting the memory that it has mapped). It also follows links, which the
// owner of the folder may plant. Nothing here logs or throws. It costs no statement, and one system
// call for each file that is opened.
//
// Others may use SQLite in the same process, for databases of their own: what is said here holds
// for connections that ask for it, and for them alone.

#pragma once

struct sqlite3;

namespace corvo::mail {

/// What connections are opened through, by sqlite3_open_v2, once it is registered. Files that
/// SQLite makes stay the running user's, who alone may write them, so what a killed run leaves
/// behind waits for root to roll it back; links are followed as utils/safe_path.h says, and foreign
/// hard links are refused, as are shared memory that others may write and every super-journal (we
/// attach no databases, so none is ours). Not refused is what a connection of others to the same
/// database holds open already, since SQLite then shares it.
inline constexpr const char* HARDENED_VFS = "corvo-hardened";

/// Registers it beside the default one, once for the process; from any thread. False when it cannot
/// be had. SQLite has one table of system calls for all connections: "open", "readlink", "fchmod"
/// and "fchown" then go through this library, which hands others' on to what stood there before.
/// That table has no lock, so a process with threads that use SQLite makes the first call before
/// they start.
[[nodiscard]] bool registerHardenedVfs() noexcept;

/// For one connection: the schema runs no code of its own (triggers, views, virtual tables,
/// functions with side effects), and no value is longer than 1 MiB.
void hardenConnection(sqlite3* database) noexcept;

}  // namespace corvo::mail
