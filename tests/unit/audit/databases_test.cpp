#include "audit/databases.h"

#include <set>

#include "tests/support/capture.h"
#include "tests/support/sqlite.h"
#include "tests/unit/audit/look_fixture.h"

namespace corvo::audit::test {

namespace {

using corvo::test::HANDLERS;
using corvo::test::sqliteExecute;
using corvo::test::sqliteRows;
using corvo::test::USERDB;
using Texts = std::vector<std::string>;

constexpr long long QUOTA = 5000;
const std::string NOT_LOOKED_AT = ": the quota rows were not looked at\n";
const std::string NO_RECORDS = ": the records of the over-quota handler were not looked at\n";

// Rows of both databases as a run stores them.
class AuditDatabasesTest : public LookTest {
protected:
    AuditDatabasesTest() {
        sqliteExecute(USERDB, "INSERT INTO mailbox_quota VALUES ('a.example', 'anna', '5000B')");
        output.emplace(Options{});
    }

    Texts look(long long quota = QUOTA, bool isReached = true) {
        items.clear();
        QuotaRows(*output).lookAt(items, about, quota, isReached);
        return texts(items);
    }

    Texts lookAtRecords(bool reject, bool permanent) {
        items.clear();
        lookAtOverquotaRecords(items, *output, reject, permanent);
        return texts(items);
    }

    // "MAILBOX@DOMAIN" of every page.
    static Texts namesIn(QuotaRows& rows) {
        Texts all;
        for (auto page = rows.names(); !page.empty(); page = rows.names(&page.back()))
            for (const auto& [domain, mailbox] : page)
                all.push_back(mailbox + "@" + domain);
        return all;
    }

    corvo::test::StreamCapture streams;
    std::optional<Output> output;
};

// --- quota rows

TEST_F(AuditDatabasesTest, RightRowHasNoItem) {
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_TRUE(output->isWhole());
}

TEST_F(AuditDatabasesTest, MissingRowIsNamed) {
    sqliteExecute(USERDB, "DELETE FROM mailbox_quota");
    EXPECT_THAT(look(), ElementsAre("quota-row: has no row for it, 5000B, - [--all]"));
    EXPECT_EQ(items.front().path, USERDB);
    EXPECT_THAT(look(QUOTA, false), ElementsAre("quota-row: has no row for it, 5000B, - [none]"));
}

TEST_F(AuditDatabasesTest, RowWithAnotherQuotaIsNamed) {
    EXPECT_THAT(look(7), ElementsAre("quota-row: has another quota, 7B, 5000B [--all]"));
    EXPECT_THAT(look(-1), ElementsAre("quota-row: has another quota, 0B, 5000B [--all]"));
}

TEST_F(AuditDatabasesTest, RowThatIsNoTextIsNamed) {
    sqliteExecute(USERDB, "UPDATE mailbox_quota SET quota = CAST(quota AS BLOB)");
    EXPECT_THAT(look(), ElementsAre("quota-row: has another quota, 5000B, 5000B [--all]"));
}

TEST_F(AuditDatabasesTest, LettersOfTheNameDoNotCount) {
    about.mailbox = "Anna";
    about.domain = "A.Example";
    EXPECT_THAT(look(), IsEmpty());
}

TEST_F(AuditDatabasesTest, DatabaseThatCannotBeReadIsToldOnce) {
    std::filesystem::remove(USERDB);
    QuotaRows rows(*output);
    for (int i = 0; i < 2; ++i)
        rows.lookAt(items, about, QUOTA, true);
    EXPECT_THAT(items, IsEmpty());
    EXPECT_FALSE(output->isWhole());
    EXPECT_EQ(streams.err(),
              "mail_audit: " + USERDB + ": No such file or directory" + NOT_LOOKED_AT);
    EXPECT_FALSE(corvo::test::exists(USERDB));
}

TEST_F(AuditDatabasesTest, WriteAheadLogIsNotOpened) {
    sqliteExecute(USERDB, "PRAGMA journal_mode = WAL");
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(streams.err(), "mail_audit: " + USERDB +
                                 ": it has a write-ahead log, which cannot be read without a "
                                 "change" +
                                 NOT_LOOKED_AT);
    EXPECT_FALSE(corvo::test::exists(USERDB + "-wal"));
    EXPECT_FALSE(corvo::test::exists(USERDB + "-shm"));
}

TEST_F(AuditDatabasesTest, EmptyJournalKeepsItsMode) {
    ASSERT_EQ(::chmod(USERDB.c_str(), 0640), 0);
    corvo::test::writeFile(USERDB + "-journal", "", 0, 0, 0600);
    EXPECT_THAT(look(7), IsEmpty());
    EXPECT_EQ(streams.err(), "mail_audit: " + USERDB +
                                 ": it has an empty journal of another mode, which SQLite would "
                                 "change" +
                                 NOT_LOOKED_AT);
    EXPECT_EQ(corvo::test::modeOf(USERDB + "-journal"), "0600");
}

TEST_F(AuditDatabasesTest, EmptyJournalOfTheSameModeIsNoObstacle) {
    ASSERT_EQ(::chmod(USERDB.c_str(), 0640), 0);
    corvo::test::writeFile(USERDB + "-journal", "", 0, 0, 0640);
    EXPECT_EQ(look(7).size(), 1U);
}

TEST_F(AuditDatabasesTest, FileThatIsNoDatabaseIsNotLookedAt) {
    corvo::test::writeFile(USERDB, "no database, and of some length, so that it shows\n");
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(streams.err(), "mail_audit: " + USERDB +
                                 ": the rows cannot be read: file is not a database" +
                                 NOT_LOOKED_AT);
}

TEST_F(AuditDatabasesTest, MissingTableIsCalledSo) {
    corvo::test::writeFile(USERDB, "");
    corvo::test::writeFile(HANDLERS, "");
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_THAT(lookAtRecords(true, true), IsEmpty());
    EXPECT_EQ(streams.err(), "mail_audit: " + USERDB +
                                 ": the rows cannot be read: no such table: mailbox_quota" +
                                 NOT_LOOKED_AT + "mail_audit: " + HANDLERS +
                                 ": it cannot be read: no such table: handlers" + NO_RECORDS);
}

TEST_F(AuditDatabasesTest, InterruptedTransactionIsCalledSo) {
    const std::string header = std::string("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7\0\0\0\1", 12);
    corvo::test::writeFile(USERDB + "-journal", header + std::string(500, '\0'), 0, 0, 0644);
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_THAT(streams.err(),
                ::testing::EndsWith(" (a transaction is under way, or waits to be rolled back)" +
                                    NOT_LOOKED_AT));
}

TEST_F(AuditDatabasesTest, InATableWithoutItsKeyNoRunReplacesARow) {
    sqliteExecute(USERDB,
                  "CREATE TABLE rows AS SELECT * FROM mailbox_quota; DROP TABLE mailbox_quota; "
                  "ALTER TABLE rows RENAME TO mailbox_quota");
    EXPECT_THAT(look(7), ElementsAre("quota-row: has another quota, 7B, 5000B [none]"));
    sqliteExecute(USERDB, "DELETE FROM mailbox_quota");
    EXPECT_THAT(look(7), ElementsAre("quota-row: has no row for it, 7B, - [--all]"));
}

TEST_F(AuditDatabasesTest, NamesWithRowsAreListed) {
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota VALUES ('b.example', 'bruno', '1B'), "
                  "('a.example', 'alma', '1B'), ('', '', '1B')");
    QuotaRows rows(*output);
    EXPECT_THAT(namesIn(rows),
                ElementsAre("@", "alma@a.example", "anna@a.example", "bruno@b.example"));
    EXPECT_THAT(rows.mailboxesOf("a.example"), ElementsAre("alma", "anna"));
    EXPECT_THAT(rows.mailboxesOf("c.example"), IsEmpty());
    EXPECT_TRUE(output->isWhole());
}

TEST_F(AuditDatabasesTest, EmptyTableListsNothing) {
    sqliteExecute(USERDB, "DELETE FROM mailbox_quota");
    QuotaRows rows(*output);
    EXPECT_THAT(namesIn(rows), IsEmpty());
    EXPECT_TRUE(output->isWhole());
}

TEST_F(AuditDatabasesTest, LongListIsListedOnceAndWhole) {
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT "
                  "i + 1 FROM n WHERE i < 5000) SELECT 'd' || i % 7, 'user' || i, '1B' FROM n");
    QuotaRows rows(*output);
    const Texts names = namesIn(rows);
    EXPECT_EQ(names.size(), 5001U);
    EXPECT_EQ(std::set(names.begin(), names.end()).size(), 5001U);
}

TEST_F(AuditDatabasesTest, NamesWithZeroBytesAreListedWhole) {
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota VALUES ('a.example', 'anna' || char(0) || 'b', '1B'), "
                  "('a.example' || char(0), '', '1B')");
    QuotaRows rows(*output);
    const std::string odd("anna\0b", 6);
    EXPECT_THAT(namesIn(rows),
                ElementsAre("anna@a.example", odd + "@a.example", std::string("@a.example\0", 11)));
    EXPECT_THAT(rows.mailboxesOf("a.example"), ElementsAre("anna", odd));
}

TEST_F(AuditDatabasesTest, RowsOfOneNameAreListedOnce) {
    sqliteExecute(USERDB,
                  "DROP TABLE mailbox_quota; CREATE TABLE mailbox_quota (domain_name TEXT, "
                  "mailbox_name TEXT, quota TEXT); INSERT INTO mailbox_quota VALUES "
                  "('a.example', 'anna', '1B'), ('a.example', 'anna', '2B')");
    QuotaRows rows(*output);
    EXPECT_THAT(namesIn(rows), ElementsAre("anna@a.example"));
    EXPECT_THAT(rows.mailboxesOf("a.example"), ElementsAre("anna"));
}

// It stands behind every text.
TEST_F(AuditDatabasesTest, NameThatIsNoTextEndsTheList) {
    sqliteExecute(USERDB, "INSERT INTO mailbox_quota VALUES (X'62', 'bruno', '1B')");
    QuotaRows rows(*output);
    EXPECT_THAT(namesIn(rows), ElementsAre("anna@a.example", "bruno@b"));
    EXPECT_EQ(streams.err(),
              "mail_audit: " + USERDB + ": the rows cannot be listed" + NOT_LOOKED_AT);
}

// --- records of the over-quota handler

TEST_F(AuditDatabasesTest, NoRecordsAreRightWhereMailOverQuotaIsTaken) {
    sqliteExecute(HANDLERS, "DELETE FROM handlers");
    EXPECT_THAT(lookAtRecords(false, false), IsEmpty());
    EXPECT_THAT(lookAtRecords(true, false),
                ElementsAre("overquota-records: does not reject mail over quota as the panel says, "
                            "-, - [either]"));
}

TEST_F(AuditDatabasesTest, RecordsAreNamedWhereMailOverQuotaIsTaken) {
    sqliteExecute(HANDLERS,
                  "DELETE FROM handlers; INSERT INTO handlers (queue, type, name, address, "
                  "priority, enabled, executable, context, protected) VALUES (1, 4, "
                  "'check-quota', 'all-recipients', 10, 1, '/x', 'none', 0)");
    EXPECT_THAT(lookAtRecords(false, false),
                ElementsAre("overquota-records: rejects mail over quota though the panel says not, "
                            "-, - [either]"));
}

TEST_F(AuditDatabasesTest, RecordsThatAreMissingInPartAreNamed) {
    sqliteExecute(HANDLERS, "DELETE FROM handlers WHERE queue = 4");
    EXPECT_EQ(lookAtRecords(true, true).size(), 1U);
    EXPECT_EQ(items.front().path, HANDLERS);
}

TEST_F(AuditDatabasesTest, HandlersDatabaseThatCannotBeReadIsTold) {
    std::filesystem::remove(HANDLERS);
    EXPECT_THAT(lookAtRecords(true, true), IsEmpty());
    EXPECT_EQ(streams.err(),
              "mail_audit: " + HANDLERS + ": No such file or directory" + NO_RECORDS);
}

}  // namespace

}  // namespace corvo::audit::test
