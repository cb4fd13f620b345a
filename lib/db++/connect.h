// Connecting with the panel's own credentials: the DSN file, the admin password file and the
// configured socket.
//
// Each function returns a handle (the caller closes it with mysql_close), or null with the reason
// as text in `errbuf` of `size` bytes, cut to fit. When a system call failed errno is that call's,
// and ENOMEM when memory ran out. Nothing is retried or, but for db_connect, printed. None throws.
// No server that is connected to gets a file of this machine, whatever it asks for.
//
// The DSN file's section "corvo" may hold host ("localhost"), port (0: the client's default),
// username ("admin"), password (the first line of the other file) and dbname ("vhc"). A key with an
// empty value is there; the password file is opened only when "password" is not.

#pragma once

#include <cstddef>

struct st_mysql;

/// Where the credentials are.
inline constexpr const char* DSN_FILE = "/etc/vhc/private/dsn.ini";
inline constexpr const char* DSN_SECTION = "corvo";
inline constexpr const char* ADMIN_PASSWORD_FILE = "/etc/vhc/.vhc.shadow";

/// Reads the credentials and connects.
st_mysql* corvo_db_connect_raw_ex(char* errbuf, std::size_t size) noexcept;
/// The same; a handle on which an error is set is closed.
st_mysql* corvo_db_connect_raw(char* errbuf, std::size_t size) noexcept;
/// corvo_db_connect_raw and "SET NAMES utf8"; when that fails the handle is returned all the same,
/// with its error set.
st_mysql* corvo_db_connect_ex(char* errbuf, std::size_t size) noexcept;
/// The same; a handle on which an error is set is closed.
st_mysql* corvo_db_connect(char* errbuf, std::size_t size) noexcept;
/// As corvo_db_connect.
st_mysql* db_connect_nothrow(char* errbuf, std::size_t size) noexcept;
/// The same; the reason of a failure is printed through messlog2.
st_mysql* db_connect() noexcept;

/// Why an attempt to connect failed.
struct db_connect_failure {
    unsigned int number;  // the client's error number; 0 when it was not the client that failed
    char reason[4097];    // enough for every text, the client's own included
};

/// db_connect in pieces, for who tries again: corvo_db_connect, and what db_connect prints.
st_mysql* corvo_db_attempt(db_connect_failure& failure) noexcept;
void print_db_connect_failure(const db_connect_failure& failure) noexcept;

/// Whether the server refused for a reason that may be gone in a moment: too many connections, the
/// limits of an account, a restart.
bool may_pass_by_itself(const db_connect_failure& failure) noexcept;

/// Connects as `lost` was connected: with its credentials, to its server and database; and "SET
/// NAMES utf8". Null, and not a word, on failure; `lost` is the caller's either way.
st_mysql* corvo_db_connect_again(const st_mysql* lost) noexcept;
