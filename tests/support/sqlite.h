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

/// SQLite finds no memory in this process while this lives.
class NoSqliteMemory {
public:
    NoSqliteMemory();
    ~NoSqliteMemory();
    NoSqliteMemory(const NoSqliteMemory&) = delete;
    NoSqliteMemory& operator=(const NoSqliteMemory&) = delete;
};

}  // namespace corvo::test
