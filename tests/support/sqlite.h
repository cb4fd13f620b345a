// SQLite files as tests look at them, past the code under test.

#pragma once

#include <string>
#include <vector>

namespace corvo::test {

/// Runs a script; creates the file when there is none. Throws std::runtime_error with SQLite's
/// text.
void sqliteExecute(const std::string& path, const std::string& script);

/// The rows of a query: columns joined by "|", NULL as "NULL".
std::vector<std::string> sqliteRows(const std::string& path, const std::string& query);

/// SQLite's own word on the file: "ok" when it is whole.
std::string integrityOf(const std::string& path);

/// From now on whatever touches rows of `table` for which `condition` (without quotes) holds fails
/// with "integer overflow"; not what merely reads them.
void refuseRows(const std::string& path, const std::string& table, const std::string& condition);

/// SQLite finds no memory in this process while this lives.
class NoSqliteMemory {
public:
    NoSqliteMemory();
    ~NoSqliteMemory();
    NoSqliteMemory(const NoSqliteMemory&) = delete;
    NoSqliteMemory& operator=(const NoSqliteMemory&) = delete;
};

}  // namespace corvo::test
