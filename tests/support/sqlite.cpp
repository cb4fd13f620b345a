#include "tests/support/sqlite.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>

namespace corvo::test {

namespace {

bool hasMemory = true;
sqlite3_mem_methods memory;  // SQLite's own

void* allocate(int size) {
    return hasMemory ? memory.xMalloc(size) : nullptr;
}

void* reallocate(void* block, int size) {
    return hasMemory ? memory.xRealloc(block, size) : nullptr;
}

/// Puts the two functions above before SQLite's own. SQLite takes that only before its first use.
bool interceptMemory() {
    if (sqlite3_config(SQLITE_CONFIG_GETMALLOC, &memory) != SQLITE_OK)
        return false;
    sqlite3_mem_methods intercepting = memory;
    intercepting.xMalloc = allocate;
    intercepting.xRealloc = reallocate;
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &intercepting) == SQLITE_OK;
}

const bool isMemoryIntercepted = interceptMemory();

struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, Closer>;

Database open(const std::string& path, int flags) {
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    Database database(handle);
    if (result != SQLITE_OK)
        throw std::runtime_error(path + ": " + sqlite3_errmsg(handle));
    return database;
}

void execute(sqlite3* database, const std::string& sql, int (*callback)(void*, int, char**, char**),
             void* argument) {
    char* error = nullptr;
    if (sqlite3_exec(database, sql.c_str(), callback, argument, &error) == SQLITE_OK)
        return;
    const std::string text = error != nullptr ? error : "unknown error";
    sqlite3_free(error);
    throw std::runtime_error(text + " in: " + sql);
}

int joinColumns(void* rows, int columns, char** values, char** /*names*/) {
    std::string row;
    for (int i = 0; i < columns; ++i) {
        row += i > 0 ? "|" : "";
        row += values[i] != nullptr ? values[i] : "NULL";
    }
    static_cast<std::vector<std::string>*>(rows)->push_back(row);
    return 0;
}

}  // namespace

NoSqliteMemory::NoSqliteMemory() {
    if (!isMemoryIntercepted)
        throw std::runtime_error("SQLite was in use before its memory could be intercepted");
    hasMemory = false;
}

NoSqliteMemory::~NoSqliteMemory() {
    hasMemory = true;
}

void sqliteExecute(const std::string& path, const std::string& script) {
    const Database database = open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    execute(database.get(), script, nullptr, nullptr);
}

std::vector<std::string> sqliteRows(const std::string& path, const std::string& query) {
    const Database database = open(path, SQLITE_OPEN_READONLY);
    std::vector<std::string> rows;
    execute(database.get(), query, joinColumns, &rows);
    return rows;
}

std::string integrityOf(const std::string& path) {
    return sqliteRows(path, "PRAGMA integrity_check").at(0);
}

void refuseRows(const std::string& path, const std::string& table, const std::string& condition) {
    const std::string index = "CREATE INDEX refuse ON " + table;
    // Rows that are there already would not let the index be made.
    sqliteExecute(path, index + "(abs(0)); PRAGMA writable_schema = ON; UPDATE sqlite_master " +
                            "SET sql = '" + index + "(abs(iif(" + condition +
                            ", -9223372036854775808, 0)))' WHERE name = 'refuse'");
}

}  // namespace corvo::test
