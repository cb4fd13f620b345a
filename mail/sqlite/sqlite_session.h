// A connection to one of the local SQLite files, which the mail server reads while we write.
//
// SQLite's calls are made here and nowhere else: a file that is locked is waited for without limit
// (after SQLite's own 50 ms, the call is repeated at once, then after sleeps that start at 10 µs
// and grow by as much; only a sleep that fails gives up).
//
// That opening, preparing, beginning or ending a transaction failed reads alike for every database
// and is logged here, once, at priority 3. What a bind, a step or a script failed at is for the
// caller to say. Whoever only looks whether something is right, and otherwise takes the steps that
// wait and report, has it neither wait nor log. Nothing here throws. A session belongs to one
// thread at a time: it has no mutex.

#pragma once

#include <memory>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace corvo::mail {

enum class SqliteAccess {
    readWrite,  // the file is created when absent
    readOnly,
};

enum class SqliteUse {
    work,
    look,  // gives up after SQLite's own 50 ms, and is silent
};

struct SqliteFree {
    void operator()(char* text) const noexcept;
};

/// A text that SQLite allocated.
using SqliteText = std::unique_ptr<char, SqliteFree>;

class SqliteSession {
public:
    /// Opens `path`. A failure is logged; the session is then not open.
    SqliteSession(const char* path, SqliteAccess access, SqliteUse use = SqliteUse::work) noexcept;
    /// Works on `database`, which stays open, and opens `path` when that is null.
    SqliteSession(sqlite3* database, const char* path, SqliteAccess access,
                  SqliteUse use = SqliteUse::work) noexcept;
    /// Closes what was opened here.
    ~SqliteSession();
    SqliteSession(const SqliteSession&) = delete;
    SqliteSession& operator=(const SqliteSession&) = delete;

    /// Is it open?
    explicit operator bool() const noexcept { return database_ != nullptr; }
    sqlite3* handle() const noexcept { return database_; }

    /// Begin and end a transaction. Failures are logged, except that nothing can begin (silently)
    /// in a session that is not open.
    [[nodiscard]] bool begin() const noexcept;
    [[nodiscard]] bool end() const noexcept;

    /// Has a transaction begun and not ended? A step that fails for want of space or memory or for
    /// an I/O error makes SQLite take the whole transaction back: what follows would be kept, each
    /// step for itself, and there is nothing to end. The session is open.
    [[nodiscard]] bool inTransaction() const noexcept;

    /// Has SQLite taken back the transaction in which others, whose steps nobody here sees, worked
    /// last? Else they have ended it themselves, or it goes on. Judged by the connection's last
    /// error, so ask before the next call. The session is open.
    [[nodiscard]] bool hasRolledBack() const noexcept;

    /// Runs several statements, from the start again after waiting for a lock. On failure `error`
    /// holds SQLite's text, or null when it has none. The session is open.
    [[nodiscard]] bool execute(const char* script, SqliteText& error) const noexcept;

    /// Why the last call failed; valid until the next one. The session is open.
    const char* error() const noexcept;

private:
    void open(const char* path, SqliteAccess access, SqliteUse use) noexcept;

    sqlite3* database_;
    bool owned_;
};

enum class SqliteStep { row, done, failed };

/// A statement whose parameters are bound one after the other. Finalised by the destructor; must
/// not outlive its session.
class SqliteStatement {
public:
    /// Prepares. A failure is logged; nothing is prepared (silently) in a session that is not open.
    SqliteStatement(const SqliteSession& session, const char* sql,
                    SqliteUse use = SqliteUse::work) noexcept;
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    /// Is it prepared? Everything below needs that.
    explicit operator bool() const noexcept { return statement_ != nullptr; }

    /// Bind the next parameter. Texts are not copied: they stay as they are until the statement is
    /// rewound or finalised. A null text binds NULL.
    [[nodiscard]] bool bind(int value) noexcept;
    [[nodiscard]] bool bind(const char* value) noexcept;
    [[nodiscard]] bool bind(std::string_view value) noexcept;

    [[nodiscard]] SqliteStep step() noexcept;

    /// Columns of the current row, counted from 0. A text lives until the next step; null for NULL.
    const char* text(int column) const noexcept;
    /// The same with its zero bytes.
    std::string_view bytes(int column) const noexcept;
    int integer(int column) const noexcept;

    /// Makes ready for the first parameter and the first step again.
    void rewind() noexcept;

    /// Why the last call failed; valid until the next one.
    const char* error() const noexcept;

private:
    sqlite3_stmt* statement_ = nullptr;
    SqliteUse use_;
    int bound_ = 0;  // parameters so far
};

}  // namespace corvo::mail
