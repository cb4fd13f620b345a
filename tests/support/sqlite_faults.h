// Troubles that befall the local SQLite databases, through the library that the code under test
// uses.

#pragma once

#include <sqlite3.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/second_process.h"

namespace corvo::test {

/// An open database of the test's own.
class TestDatabase {
public:
    explicit TestDatabase(const std::string& path) {
        if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK)
            throw std::runtime_error("open " + path);
    }
    ~TestDatabase() { sqlite3_close(handle_); }
    TestDatabase(const TestDatabase&) = delete;
    TestDatabase& operator=(const TestDatabase&) = delete;

    sqlite3* get() const { return handle_; }
    void execute(const std::string& script) const {
        if (sqlite3_exec(handle_, script.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
            throw std::runtime_error(script + ": " + sqlite3_errmsg(handle_));
    }

private:
    sqlite3* handle_ = nullptr;
};

/// Lays hands on each connection that is opened while this lives.
class ConnectionHook {
public:
    explicit ConnectionHook(std::function<void(sqlite3*)> hook) {
        current() = std::move(hook);
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(&opened));
    }
    ~ConnectionHook() { sqlite3_reset_auto_extension(); }
    ConnectionHook(const ConnectionHook&) = delete;
    ConnectionHook& operator=(const ConnectionHook&) = delete;

private:
    static std::function<void(sqlite3*)>& current() {
        static std::function<void(sqlite3*)> hook;
        return hook;
    }
    static int opened(sqlite3* database, const char** /*error*/, const void* /*api*/) {
        current()(database);
        return SQLITE_OK;
    }
};

/// A hook: texts bound to statements on tables may have at most so many bytes.
template <int bytes>
void limitBoundTexts(sqlite3* database) {
    // Not before the statement is known: reading the schema needs longer ones.
    const auto authorize = [](void* connection, int action, const char*, const char*, const char*,
                              const char*) {
        if (action != SQLITE_TRANSACTION && action != SQLITE_SELECT)
            sqlite3_limit(static_cast<sqlite3*>(connection), SQLITE_LIMIT_LENGTH, bytes);
        return SQLITE_OK;
    };
    sqlite3_set_authorizer(database, authorize, database);
}

/// A hook: statements that begin or end a transaction are not prepared.
inline void refuseTransactionStatements(sqlite3* database) {
    const auto authorize = [](void*, int action, const char*, const char*, const char*,
                              const char*) {
        return action == SQLITE_TRANSACTION ? SQLITE_DENY : SQLITE_OK;
    };
    sqlite3_set_authorizer(database, authorize, nullptr);
}

/// A hook: transactions are not ended.
inline void refuseCommits(sqlite3* database) {
    sqlite3_commit_hook(
        database, [](void*) { return 1; }, nullptr);
}

/// A hook: statements are interrupted as they run; not as they are prepared, where newer releases
/// of SQLite make the same call.
inline void interruptSteps(sqlite3* database) {
    const auto isRunning = [](void* connection) {
        return sqlite3_stmt_busy(sqlite3_next_stmt(static_cast<sqlite3*>(connection), nullptr));
    };
    sqlite3_progress_handler(database, 1, isRunning, database);
}

/// A hook: SQL's room(text) finds the disk full for "b".
inline void addRoom(sqlite3* database) {
    const auto room = [](sqlite3_context* context, int, sqlite3_value** values) {
        if (std::string("b") == reinterpret_cast<const char*>(sqlite3_value_text(values[0])))
            sqlite3_result_error_code(context, SQLITE_FULL);
        else
            sqlite3_result_value(context, values[0]);
    };
    sqlite3_create_function(database, "room", 1,
                            SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, nullptr, room,
                            nullptr, nullptr);
}

/// The texts of the statements that run on connections opened while this lives.
class StatementTrace {
public:
    const std::vector<std::string>& statements() const { return seen_; }

private:
    static int note(unsigned /*event*/, void* trace, void* /*statement*/, void* text) {
        static_cast<StatementTrace*>(trace)->seen_.emplace_back(static_cast<const char*>(text));
        return 0;
    }

    std::vector<std::string> seen_;
    ConnectionHook hook_{
        [this](sqlite3* database) { sqlite3_trace_v2(database, SQLITE_TRACE_STMT, &note, this); }};
};

/// Holds a lock on the file in another process, for so long.
class LockedByAnother : public SecondProcess {
public:
    explicit LockedByAnother(const std::string& path, useconds_t microseconds = 2'000'000)
        : SecondProcess([&](const Ready& ready) {
              const TestDatabase database(path);
              database.execute("BEGIN EXCLUSIVE");
              ready();
              ::usleep(microseconds);
              database.execute("ROLLBACK");
          }) {}
};

}  // namespace corvo::test
