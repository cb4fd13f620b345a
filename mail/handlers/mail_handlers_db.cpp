#include "mail/handlers/mail_handlers_db.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mail/sqlite/sqlite_session.h"
#include "utils/log.h"

char mh_db_path[PATH_MAX] = "/var/lib/corvo/mail/handlers/handlers.db";

namespace {

using corvo::mail::RowDifferences;
using corvo::mail::rowDifferences;
using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteStatement;
using corvo::mail::SqliteStep;
using corvo::mail::SqliteUse;

// The addresses of global handlers.
constexpr const char* ALL = "all";
constexpr const char* ALL_RECIPIENTS = "all-recipients";

// What selections look for fits into this, or is cut.
constexpr std::size_t SELECT_ADDRESS_SIZE = 502;

bool isEmpty(const char* text) noexcept {
    return text == nullptr || *text == '\0';
}

bool isEverybody(const char* address) noexcept {
    return std::strcmp(address, ALL) == 0 || std::strcmp(address, ALL_RECIPIENTS) == 0;
}

// The address that a record is stored under, but for its case; null where a global handler must not
// have it.
const char* storedAddress(const mh_data& record) noexcept {
    if (record.type != MH_GLOBAL_HANDLER_TYPE)
        return record.address;
    if (isEmpty(record.address))
        return ALL;
    return isEverybody(record.address) ? record.address : nullptr;
}

const char* storedContext(const mh_data& record) noexcept {
    return record.context == nullptr ? "none" : record.context;
}

// False after logging.
bool validate_global_handler_recipient(const mh_data& record) noexcept {
    if (record.type != MH_GLOBAL_HANDLER_TYPE || storedAddress(record) != nullptr)
        return true;
    corvo::Log().line(
        LOG_ERR,
        "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]", ALL,
        ALL_RECIPIENTS);
    errno = EINVAL;
    return false;
}

// The address to look for; null after logging. Unlike a record to add, a key for global handlers
// must not have an empty one.
const char* selectedAddress(const mh_data& key) noexcept {
    if (key.type != MH_GLOBAL_HANDLER_TYPE)
        return key.address == nullptr ? "" : key.address;
    if (key.address == nullptr)
        return ALL;
    if (isEverybody(key.address))
        return key.address;
    corvo::Log().line(LOG_ERR,
                      "Incorrect recipient address for global handler `%s', expected [NULL|%s|%s]",
                      key.address, ALL, ALL_RECIPIENTS);
    errno = EINVAL;
    return nullptr;
}

// Binds the parameters of a query in their order.
class Binder {
public:
    Binder(SqliteStatement& statement, const char* query) noexcept
        : statement_(statement), query_(query) {}

    // False after logging.
    template <typename Value>
    bool operator()(const char* parameter, Value value) noexcept {
        if (statement_.bind(value))
            return true;
        corvo::Log().line(LOG_ERR, "Unable to bind parameter '%s' to the '%s' query: %s", parameter,
                          query_, statement_.error());
        return false;
    }

private:
    SqliteStatement& statement_;
    const char* query_;
};

bool bindInsertion(SqliteStatement& insert, const mh_data& record) noexcept {
    Binder bind(insert, "INSERT");
    return bind("priority", record.priority) && bind("name", record.name) &&
           bind("type", record.type) && bind("address", storedAddress(record)) &&
           bind("queue", record.queue) && bind("address", record.executable) &&  // sic
           bind("context", storedContext(record)) &&
           bind("protect_on_restore", record.protect_on_restore) && bind("enabled", record.enabled);
}

bool bindDeletion(SqliteStatement& remove, const mh_data& record, bool everyAddress) noexcept {
    Binder bind(remove, "DELETE");
    return bind("name", record.name) && bind("type", record.type) &&
           (everyAddress || bind("address", record.address)) && bind("queue", record.queue);
}

bool bindSelection(SqliteStatement& select, const mh_data& key, const char* address) noexcept {
    Binder bind(select, "SELECT");
    return bind("queue", key.queue) && bind("type", key.type) && bind("enabled", key.enabled) &&
           bind("address", address);
}

// A column's text, lent to a record that mh_list_add is about to copy.
char* lent(const SqliteStatement& select, int column) noexcept {
    return const_cast<char*>(select.text(column));
}

// Adds a record for each row that `read(record)` accepts; what it sets in the record is lent.
template <typename Read, typename LogFailure>
int collect(SqliteStatement& select, mh_list* list, mh_data record, Read read,
            LogFailure logFailure) noexcept {
    for (;;) {
        const SqliteStep step = select.step();
        if (step == SqliteStep::done)
            return 0;
        if (step == SqliteStep::failed) {
            logFailure(select.error());
            return -1;
        }
        if (read(record) && mh_list_add(list, &record) != 0) {
            corvo::Log().line(LOG_ERR, "Unable to save the data from SELECT query");
            return -1;
        }
    }
}

// Which of the rows that a statement found are meant.
using AddressFilter = bool (*)(const char* found, const char* wanted) noexcept;

bool isAnyAddress(const char* /*found*/, const char* /*wanted*/) noexcept {
    return true;
}

// LIKE also finds longer names ("a.com" in "aa.com") and takes "%" and "_" for wildcards.
bool isOfDomain(const char* found, const char* domain) noexcept {
    const std::size_t length = std::strlen(found);
    const std::size_t domainLength = std::strlen(domain);
    if (length < domainLength || ::strcasecmp(found + (length - domainLength), domain) != 0)
        return false;
    return length == domainLength || found[length - domainLength - 1] == '@';
}

int selectWhole(sqlite3* db, mh_list* list, const char* wanted, const char* sql,
                AddressFilter isMeant) noexcept {
    const SqliteSession session(db, mh_db_path, SqliteAccess::readOnly);
    SqliteStatement select(session, sql);
    if (!select || !Binder(select, "SELECT")("address", wanted))
        return -1;
    const auto read = [&](mh_data& record) noexcept {
        record.priority = select.integer(0);
        record.type = select.integer(1);
        record.queue = select.integer(2);
        record.name = lent(select, 3);
        record.address = lent(select, 4);
        record.executable = lent(select, 5);
        record.context = lent(select, 6);
        record.enabled = select.integer(7) != 0;
        return record.address != nullptr && isMeant(record.address, wanted);
    };
    mh_data record;
    mh_data_init_ex(&record);
    return collect(select, list, record, read, [](const char* error) noexcept {
        corvo::Log().line(LOG_ERR, "Unable to select data from handlers database: %s", error);
    });
}

// The row of a record is found by its key and compared in SQL, which tells a BLOB of the same bytes
// from a text.
RowDifferences lookAt(const SqliteSession& session, const mh_data& record) noexcept {
    SqliteStatement look(session,
                         "SELECT priority=? AND executable=? AND context=? AND protected=? AND "
                         "enabled=? FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND "
                         "queue=?",
                         SqliteUse::look);
    const bool isReady = look && look.bind(record.priority) && look.bind(record.executable) &&
                         look.bind(storedContext(record)) && look.bind(record.protect_on_restore) &&
                         look.bind(record.enabled) && look.bind(record.name) &&
                         look.bind(record.type) && look.bind(storedAddress(record)) &&
                         look.bind(record.queue);
    return isReady ? rowDifferences(look) : RowDifferences{.unknown = true};
}

// How many rows have the name; -1 when that cannot be told.
int countRows(const SqliteSession& session, const char* name) noexcept {
    SqliteStatement count(session, "SELECT COUNT(*) FROM handlers WHERE name=?", SqliteUse::look);
    const bool isCounted = count && count.bind(name) && count.step() == SqliteStep::row;
    return isCounted ? count.integer(0) : -1;
}

}  // namespace

char* mh_db_path_set(const char* path) noexcept {
    const std::size_t size = std::strlen(path) + 1;
    if (size > sizeof mh_db_path) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::memmove(mh_db_path, path, size);
    return mh_db_path;
}

int mh_db_add(sqlite3* db, mh_data* record) noexcept {
    if (!validate_global_handler_recipient(*record))
        return -1;
    const SqliteSession session(db, mh_db_path, SqliteAccess::readWrite);
    SqliteStatement insert(session,
                           "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, "
                           "executable, context, protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, "
                           "?, ?, ?, ?)");
    if (!insert || !bindInsertion(insert, *record))
        return -1;
    if (insert.step() == SqliteStep::done)
        return 0;
    corvo::Log().line(LOG_ERR, "Unable to execute insert record into handlers database: %s",
                      insert.error());
    return -1;
}

int mh_db_remove(sqlite3* db, mh_data* record) noexcept {
    const bool everyAddress = record->type == MH_GLOBAL_HANDLER_TYPE || isEmpty(record->address);
    if (everyAddress && mh_data_set_address(record, ALL) != 0)
        return -1;
    const SqliteSession session(db, mh_db_path, SqliteAccess::readWrite);
    SqliteStatement remove(
        session,
        everyAddress
            ? "DELETE FROM handlers WHERE name=? AND type=? AND queue=?"
            : "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?");
    if (!remove || !bindDeletion(remove, *record, everyAddress))
        return -1;
    if (remove.step() == SqliteStep::done)
        return 0;
    corvo::Log().line(LOG_ERR, "Unable to execute delete record from handlers database: %s",
                      remove.error());
    return -1;
}

int mh_db_remove_addr(sqlite3* db, const char* address) noexcept {
    return mh_db_action(db, address, "DELETE FROM handlers WHERE address=?");
}

int mh_db_remove_name(sqlite3* db, const char* name) noexcept {
    return mh_db_action(db, name, "DELETE FROM handlers WHERE name=?");
}

int mh_db_action(sqlite3* db, const char* parameter, const char* statement) noexcept {
    const SqliteSession session(db, mh_db_path, SqliteAccess::readWrite);
    SqliteStatement action(session, statement);
    if (!action)
        return -1;
    if (!action.bind(parameter)) {
        corvo::Log().line(LOG_ERR, "Unable to bind parameter param to query: %s", action.error());
        return -1;
    }
    if (action.step() == SqliteStep::done)
        return 0;
    corvo::Log().line(LOG_ERR, "Unable to execute do action on handlers database: %s",
                      action.error());
    return -1;
}

int mh_db_do(mh_list* list, sqlite3* db, int (*callback)(sqlite3*, mh_data*)) noexcept {
    const SqliteSession session(db, mh_db_path, SqliteAccess::readWrite);
    if (!session.begin())
        return -1;
    for (const mh_list_node* node = list->first; node != nullptr; node = node->next) {
        const bool hadTransaction = session.inTransaction();
        (void)callback(session.handle(), node->record);
        if (hadTransaction && session.hasRolledBack())
            return -1;
    }
    return session.end() ? 0 : -1;
}

int mh_db_remove_all(sqlite3* db, const char* domain) noexcept {
    mh_list list;
    mh_list_init(&list);
    int result = mh_db_select_by_domain_name(db, &list, domain);
    if (result == 0)
        result = mh_db_do(&list, db, mh_db_remove);
    if (result != 0)
        corvo::Log().line(LOG_ERR, "Unable to add records into handlers database");
    mh_list_free(&list);
    return result;
}

int mh_db_select(sqlite3* db, mh_list* list, const mh_data* key) noexcept {
    const char* const wanted = selectedAddress(*key);
    if (wanted == nullptr)
        return -1;
    char address[SELECT_ADDRESS_SIZE];
    (void)std::snprintf(address, sizeof address, "%s", wanted);
    const SqliteSession session(db, mh_db_path, SqliteAccess::readOnly);
    SqliteStatement select(session,
                           "SELECT executable, context, name FROM handlers WHERE queue=? AND "
                           "type=? AND enabled=? AND address=? ORDER BY priority DESC");
    if (!select || !bindSelection(select, *key, address))
        return -1;
    const auto read = [&](mh_data& record) noexcept {
        record.executable = lent(select, 0);
        record.context = lent(select, 1);
        record.name = lent(select, 2);
        return true;
    };
    mh_data record;
    mh_data_init_ex(&record);
    record.queue = key->queue;
    record.type = key->type;
    record.enabled = key->enabled;
    record.address = address;
    return collect(select, list, record, read, [](const char* error) noexcept {
        corvo::Log().line(LOG_ERR, "Unable to get data from mail handlers database: %s", error);
    });
}

int mh_db_select_by_addr(sqlite3* db, mh_list* list, const char* address) noexcept {
    if (std::strchr(address, '@') == nullptr)
        return mh_db_select_by_domain_name(db, list, address);
    return selectWhole(db, list, address,
                       "SELECT priority, type, queue, name, address, executable, context, enabled "
                       "FROM handlers WHERE address = ?",
                       isAnyAddress);
}

int mh_db_select_by_domain_name(sqlite3* db, mh_list* list, const char* domain) noexcept {
    return selectWhole(db, list, domain,
                       "SELECT priority, type, queue, name, address, executable, context, enabled "
                       "FROM handlers WHERE address LIKE '%' || ? || '%'",
                       isOfDomain);
}

RowDifferences mh_db_name_differences(sqlite3* db, const char* name,
                                      std::span<const mh_data> wanted) noexcept {
    const SqliteSession session(db, mh_db_path, SqliteAccess::readOnly, SqliteUse::look);
    RowDifferences all;
    int found = 0;
    for (const mh_data& record : wanted) {
        const RowDifferences one = lookAt(session, record);
        if (one.unknown)
            return one;
        all.missing |= one.missing;
        all.contents |= one.contents;
        found += one.missing ? 0 : 1;
    }
    const int rows = countRows(session, name);
    if (rows < 0)
        return {.unknown = true};
    all.surplus = rows > found;
    return all;
}
