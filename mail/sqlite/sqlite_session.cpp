#include "mail/sqlite/sqlite_session.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

#include "mail/sqlite/sqlite_hardening.h"
#include "utils/log.h"

namespace corvo::mail {

namespace {

constexpr int BUSY_TIMEOUT_MS = 50;
constexpr long DELAY_STEP_NS = 10'000;
constexpr long SECOND_NS = 1'000'000'000;

bool pause(long delay) noexcept {
    if (delay == 0)
        return true;
    const timespec span{delay / SECOND_NS, delay % SECOND_NS};
    return ::nanosleep(&span, nullptr) == 0;
}

// `undo` takes back what an attempt that met a lock has left behind.
template <typename Call, typename Undo>
int repeatWhileBusy(Call call, Undo undo) noexcept {
    int result = call();
    for (long delay = 0; result == SQLITE_BUSY; delay += DELAY_STEP_NS) {
        undo();
        if (!pause(delay))
            break;
        result = call();
    }
    return result;
}

template <typename Call>
int repeatWhileBusy(Call call) noexcept {
    return repeatWhileBusy(call, [] {});
}

// A look is made once.
template <typename Call, typename Undo>
int attempt(SqliteUse use, Call call, Undo undo) noexcept {
    return use == SqliteUse::look ? call() : repeatWhileBusy(call, undo);
}

void close(sqlite3* database) noexcept {
    (void)repeatWhileBusy([database] { return sqlite3_close(database); });
}

int openHardened(const char* path, bool readOnly, sqlite3*& opened) noexcept {
    if (!registerHardenedVfs())
        return SQLITE_NOMEM;
    const int access = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    return sqlite3_open_v2(path, &opened, access | SQLITE_OPEN_NOMUTEX, HARDENED_VFS);
}

const char* errorOf(sqlite3* database) noexcept {
    return database == nullptr ? "general DB errror"  // sic
                               : sqlite3_errmsg(database);
}

void logOpenFailure(const char* path, bool readOnly, sqlite3* database) noexcept {
    if (readOnly)
        Log().line(LOG_ERR, "Unable to open database(readonly) %s: %s", path, errorOf(database));
    else
        Log().line(LOG_ERR, "Unable to open database %s: %s", path, errorOf(database));
}

// The errors for which SQLite says that it may take a transaction back unasked.
bool mayRollBack(int result) noexcept {
    constexpr int PRIMARY_CODE = 0xff;
    switch (result & PRIMARY_CODE) {
        case SQLITE_FULL:
        case SQLITE_IOERR:
        case SQLITE_NOMEM:
        case SQLITE_BUSY:
        case SQLITE_INTERRUPT:
            return true;
        default:
            return false;
    }
}

}  // namespace

void SqliteFree::operator()(char* text) const noexcept {
    sqlite3_free(text);
}

SqliteSession::SqliteSession(const char* path, SqliteAccess access, SqliteUse use) noexcept
    : SqliteSession(nullptr, path, access, use) {}

SqliteSession::SqliteSession(sqlite3* database, const char* path, SqliteAccess access,
                             SqliteUse use) noexcept
    : database_(database), owned_(database == nullptr) {
    if (owned_)
        open(path, access, use);
}

SqliteSession::~SqliteSession() {
    if (owned_)
        close(database_);
}

void SqliteSession::open(const char* path, SqliteAccess access, SqliteUse use) noexcept {
    const bool readOnly = access == SqliteAccess::readOnly;
    sqlite3* opened = nullptr;
    if (openHardened(path, readOnly, opened) == SQLITE_OK) {
        sqlite3_busy_timeout(opened, BUSY_TIMEOUT_MS);
        hardenConnection(opened);
        database_ = opened;
        return;
    }
    if (use == SqliteUse::work)
        logOpenFailure(path, readOnly, opened);
    close(opened);
}

bool SqliteSession::begin() const noexcept {
    SqliteStatement statement(*this, "BEGIN TRANSACTION;");
    if (!statement)
        return false;
    if (statement.step() == SqliteStep::done)
        return true;
    Log().line(LOG_ERR, "Unable to begin sqlite transaction: %s", statement.error());
    return false;
}

bool SqliteSession::end() const noexcept {
    SqliteStatement statement(*this, "END TRANSACTION;");
    if (!statement)
        return false;
    if (statement.step() == SqliteStep::done)
        return true;
    Log().line(LOG_ERR, "Unable to end sqlite transaction: %s", statement.error());
    return false;
}

bool SqliteSession::inTransaction() const noexcept {
    return sqlite3_get_autocommit(database_) == 0;
}

bool SqliteSession::hasRolledBack() const noexcept {
    return !inTransaction() && mayRollBack(sqlite3_errcode(database_));
}

bool SqliteSession::execute(const char* script, SqliteText& error) const noexcept {
    const auto attempt = [&] {
        char* text = nullptr;
        const int result = sqlite3_exec(database_, script, nullptr, nullptr, &text);
        error.reset(text);
        return result;
    };
    // The next attempt would otherwise begin a transaction within its predecessor's.
    const auto rollBack = [&] {
        if (inTransaction())
            (void)sqlite3_exec(database_, "ROLLBACK;", nullptr, nullptr, nullptr);
    };
    return repeatWhileBusy(attempt, rollBack) == SQLITE_OK;
}

const char* SqliteSession::error() const noexcept {
    return sqlite3_errmsg(database_);
}

SqliteStatement::SqliteStatement(const SqliteSession& session, const char* sql,
                                 SqliteUse use) noexcept
    : use_(use) {
    if (!session)
        return;
    const int result = attempt(
        use, [&] { return sqlite3_prepare_v2(session.handle(), sql, -1, &statement_, nullptr); },
        [] {});
    if (result != SQLITE_OK && use == SqliteUse::work)
        Log().line(LOG_ERR, "Unable to prepare SQL statement for query '%s': %s", sql,
                   errorOf(session.handle()));
}

SqliteStatement::~SqliteStatement() {
    sqlite3_finalize(statement_);
}

bool SqliteStatement::bind(int value) noexcept {
    return sqlite3_bind_int(statement_, ++bound_, value) == SQLITE_OK;
}

bool SqliteStatement::bind(const char* value) noexcept {
    return bind(value == nullptr ? std::string_view() : std::string_view(value));
}

bool SqliteStatement::bind(std::string_view value) noexcept {
    // What does not fit into an int is beyond SQLite's own limit, too, and refused as too big.
    const int length = static_cast<int>(std::min<std::size_t>(value.size(), INT_MAX));
    return sqlite3_bind_text(statement_, ++bound_, value.data(), length, SQLITE_STATIC) ==
           SQLITE_OK;
}

SqliteStep SqliteStatement::step() noexcept {
    const int result = attempt(
        use_, [this] { return sqlite3_step(statement_); }, [this] { sqlite3_reset(statement_); });
    switch (result) {
        case SQLITE_ROW:
            return SqliteStep::row;
        case SQLITE_DONE:
            return SqliteStep::done;
        default:
            return SqliteStep::failed;
    }
}

const char* SqliteStatement::text(int column) const noexcept {
    return reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
}

std::string_view SqliteStatement::bytes(int column) const noexcept {
    const char* const found = text(column);  // converts first, which may change the length
    if (found == nullptr)
        return {};
    return {found, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

int SqliteStatement::integer(int column) const noexcept {
    return sqlite3_column_int(statement_, column);
}

void SqliteStatement::rewind() noexcept {
    sqlite3_reset(statement_);
    bound_ = 0;
}

const char* SqliteStatement::error() const noexcept {
    return sqlite3_errmsg(sqlite3_db_handle(statement_));
}

}  // namespace corvo::mail
