// What the tests of the handlers database share: records and lists of the test's own.

#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mail/handlers/mail_handlers_creation.h"
#include "mail/handlers/mail_handlers_db.h"
#include "tests/support/logging.h"
#include "tests/support/sqlite.h"

namespace corvo::test::handlers {

using Rows = std::vector<std::string>;

inline const std::string FOLDER = "/var/lib/corvo/mail/handlers";
inline const std::string FILE_PATH = FOLDER + "/handlers.db";

inline const std::string INSERT =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, "
    "protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";
inline const std::string DELETE_GLOBAL = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";
inline const std::string DELETE_ONE =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";
inline const std::string SELECT =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND "
    "address=? ORDER BY priority DESC";
inline const std::string SELECT_ADDRESS =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers WHERE "
    "address = ?";
inline const std::string SELECT_DOMAIN =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers WHERE "
    "address LIKE '%' || ? || '%'";

/// A record with strings of its own.
class Record {
public:
    Record(int type, int queue, const char* name, const char* address) {
        mh_data_init_ex(&data);
        data.type = type;
        data.queue = queue;
        data.name = copy(name);
        data.address = copy(address);
        data.executable = copy("/bin/hook");
    }
    ~Record() { mh_data_free_ex(&data); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    Record& priority(int value) {
        data.priority = value;
        return *this;
    }
    Record& context(const char* value) {
        data.context = copy(value);
        return *this;
    }
    Record& executable(const char* value) {
        std::free(data.executable);
        data.executable = copy(value);
        return *this;
    }
    Record& enabled() {
        data.enabled = true;
        return *this;
    }
    Record& isProtected() {
        data.protect_on_restore = true;
        return *this;
    }

    int add(sqlite3* db = nullptr) { return mh_db_add(db, &data); }
    int remove(sqlite3* db = nullptr) { return mh_db_remove(db, &data); }

    mh_data data;

private:
    static char* copy(const char* text) { return text == nullptr ? nullptr : ::strdup(text); }
};

/// A list, freed at the end.
class List {
public:
    List() { mh_list_init(&list); }
    ~List() { mh_list_free(&list); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    int add(const Record& record) { return mh_list_add(&list, &record.data); }

    /// "name" of each record, in list order.
    Rows names() const {
        Rows all;
        for (const mh_list_node* node = list.first; node != nullptr; node = node->next)
            all.emplace_back(node->record->name);
        return all;
    }

    mh_list list;
};

inline int select(List& found, const Record& key, sqlite3* db = nullptr) {
    return mh_db_select(db, &found.list, &key.data);
}

inline std::string describe(const mh_data& record) {
    const auto text = [](const char* string) { return std::string(string ? string : "NULL"); };
    return std::to_string(record.priority) + "|" + std::to_string(record.type) + "|" +
           std::to_string(record.queue) + "|" + text(record.name) + "|" + text(record.address) +
           "|" + text(record.executable) + "|" + text(record.context) + "|" +
           std::to_string(record.protect_on_restore) + "|" + std::to_string(record.enabled);
}

// With an empty table.
class MailHandlersDbTest : public LoggingTest {
protected:
    MailHandlersDbTest() { EXPECT_EQ(mh_db_create(), 0); }
    void TearDown() override { mh_db_path_set(FILE_PATH.c_str()); }

    static Rows rows(const std::string& columns) {
        return sqliteRows(FILE_PATH, "SELECT " + columns + " FROM handlers ORDER BY rowid");
    }
    static Rows allRows() {
        return rows(
            "queue, type, enabled, priority, name, address, executable, context, protected");
    }
    static void insert(int queue, int type, int priority, const std::string& name,
                       const std::string& address) {
        sqliteExecute(FILE_PATH, "INSERT INTO handlers VALUES (" + std::to_string(queue) + ", " +
                                     std::to_string(type) + ", 1, " + std::to_string(priority) +
                                     ", '" + name + "', '" + address + "', 'exe', 'ctx', 1)");
    }
};

}  // namespace corvo::test::handlers
