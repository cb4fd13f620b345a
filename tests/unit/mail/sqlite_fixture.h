// What the tests of the local SQLite databases share: troubles that befall a database file.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "utils/log.h"

namespace corvo::test {

inline void checkCall(int result, const std::string& what) {
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

/// A line of the log and its priority. A text alone is a line of priority 3.
struct LoggedLine {
    // NOLINTBEGIN(google-explicit-constructor)
    LoggedLine(const char* line, int itsPriority = 3) : text(line), priority(itsPriority) {}
    LoggedLine(std::string line, int itsPriority = 3)
        : text(std::move(line)), priority(itsPriority) {}
    // NOLINTEND(google-explicit-constructor)

    std::string text;
    int priority;
};

using LoggedLines = std::vector<LoggedLine>;

/// What the logger prints for these lines, on either stream.
inline std::string textOf(const LoggedLines& lines) {
    std::string all;
    for (const LoggedLine& line : lines)
        all += line.text + "\n";
    return all;
}

/// While it lives, the logger notes the priority of each line that it prints. Allocates nothing.
class PriorityLog {
public:
    PriorityLog() {
        count = 0;
        corvo_log = &note;
    }
    ~PriorityLog() { corvo_log = saved; }
    PriorityLog(const PriorityLog&) = delete;
    PriorityLog& operator=(const PriorityLog&) = delete;

    /// Were these the priorities since the last call?
    static bool take(const LoggedLines& lines) {
        const std::size_t noticed = std::exchange(count, 0);
        return std::equal(lines.begin(), lines.end(), priorities, priorities + noticed,
                          [](const LoggedLine& line, int seen) { return line.priority == seen; });
    }

private:
    static void note(int priority, const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (priority <= LogLevel && count < std::size(priorities))
            priorities[count++] = priority;
        va_list arguments;
        va_start(arguments, format);
        corvo_logv(priority, format, arguments);
        va_end(arguments);
    }

    static inline int priorities[256];
    static inline std::size_t count = 0;

    decltype(corvo_log) saved = corvo_log;
};

/// A test in which every line logged is asserted by expectLogged.
class SqliteTest : public SandboxTest {
protected:
    /// Both streams hold exactly these lines since the last call. After a failure nothing more is
    /// looked at, since the streams then hold its report.
    void expectLogged(const LoggedLines& lines) {
        if (HasFailure())
            return;
        const std::string err = output.err();
        const std::string out = output.out();
        EXPECT_EQ(err, textOf(lines));
        EXPECT_EQ(out, textOf(lines));
        EXPECT_TRUE(PriorityLog::take(lines)) << "other priorities: " << textOf(lines);
    }

    StreamCapture output;
    PriorityLog priorityLog;
};

/// Runs `body` in a forked child: it must print exactly these lines on both streams and end well.
inline void expectChildLogs(const LoggedLines& lines, const std::function<void()>& body) {
    const ProcessResult child = runForked([&] {
        body();
        if (!PriorityLog::take(lines))
            ::_exit(3);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, textOf(lines));
    EXPECT_EQ(child.out, textOf(lines));
}

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

/// From now on whatever touches rows of `table` for which `condition` (without quotes) holds fails
/// with "integer overflow"; not what merely reads them.
inline void refuseRows(const std::string& path, const std::string& table,
                       const std::string& condition) {
    const std::string index = "CREATE INDEX refuse ON " + table;
    // Rows that are there already would not let the index be made.
    sqliteExecute(path, index + "(abs(0)); PRAGMA writable_schema = ON; UPDATE sqlite_master " +
                            "SET sql = '" + index + "(abs(iif(" + condition +
                            ", -9223372036854775808, 0)))' WHERE name = 'refuse'");
}

/// The texts of the statements that run on connections opened while this lives.
class StatementTrace {
public:
    const std::vector<std::string>& statements() const { return seen; }

private:
    static int note(unsigned /*event*/, void* trace, void* /*statement*/, void* text) {
        static_cast<StatementTrace*>(trace)->seen.emplace_back(static_cast<const char*>(text));
        return 0;
    }

    std::vector<std::string> seen;
    ConnectionHook hook{
        [this](sqlite3* database) { sqlite3_trace_v2(database, SQLITE_TRACE_STMT, &note, this); }};
};

/// Another process that does something with the file.
class OtherProcess {
public:
    /// Returns once `body` has called `ready`.
    explicit OtherProcess(const std::function<void(const std::function<void()>& ready)>& body) {
        int ends[2];
        checkCall(::pipe2(ends, O_CLOEXEC), "pipe2");
        child = ::fork();
        if (child == 0) {
            body([&] { (void)!::write(ends[1], "!", 1); });
            ::_exit(0);
        }
        ::close(ends[1]);
        char signal = 0;
        const ssize_t got = ::read(ends[0], &signal, 1);
        ::close(ends[0]);
        if (got != 1)
            throw std::runtime_error("the other process ended too early");
    }
    /// Waits for its end; it must have gone well.
    ~OtherProcess() {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << "the other process failed";
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

private:
    pid_t child = -1;
};

/// Holds a lock on the file in another process, for so long.
class LockedByAnother : public OtherProcess {
public:
    explicit LockedByAnother(const std::string& path, useconds_t microseconds = 2'000'000)
        : OtherProcess([&](const std::function<void()>& ready) {
              const TestDatabase database(path);
              database.execute("BEGIN EXCLUSIVE");
              ready();
              ::usleep(microseconds);
              database.execute("ROLLBACK");
          }) {}
};

/// From now on this process can have no more than so much memory: for forked children.
inline void limitMemory(std::size_t bytes) {
    const rlimit limit{bytes, bytes};
    checkCall(::setrlimit(RLIMIT_AS, &limit), "limit memory");
}

/// Bytes that count against limitMemory.
inline std::size_t memoryInUse() {
    return std::stoull(contentsOf("/proc/self/statm")) * static_cast<unsigned>(::getpagesize());
}

/// Takes all the memory there is, to the last piece: for forked children.
inline void exhaustMemory() {
    limitMemory(1);
    // Pieces that were freed are kept by their size, each to be used up.
    for (std::size_t size = std::size_t{1} << 24; size >= 16; size -= size > 2048 ? size / 2 : 8)
        for (void* volatile piece = std::malloc(size); piece != nullptr;)
            piece = std::malloc(size);
}

/// The file system at `directory` (a mount point) can only be read from now on.
inline void makeReadOnly(const std::string& directory) {
    checkCall(::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr),
              "remount read-only");
}

/// A file system of its own, of so many bytes, at `directory`.
inline void mountSmall(const std::string& directory, int bytes) {
    makeDirectory(directory);
    const std::string options = "size=" + std::to_string(bytes);
    checkCall(::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()), "mount");
}

/// Fills the file system that `directory` is on.
inline void fill(const std::string& directory) {
    const int file = ::open((directory + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (::write(file, block.data(), block.size()) > 0) {
    }
    ::close(file);
}

inline std::string integrityOf(const std::string& path) {
    return sqliteRows(path, "PRAGMA integrity_check").at(0);
}

}  // namespace corvo::test
