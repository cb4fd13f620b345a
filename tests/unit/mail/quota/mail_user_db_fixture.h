// What the tests of the user database share.

#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "mail/quota/mail_user_db.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sqlite.h"

namespace corvo::test::userdb {

using mail::MailQuota;
using mail::MailUserDbHelper;

inline const std::string FOLDER = "/var/lib/corvo/mail/userdb";
inline const std::string FILE_PATH = FOLDER + "/userdb.db";

inline const std::string REPLACE =
    "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)";

inline std::vector<std::string> rows() {
    return sqliteRows(FILE_PATH,
                      "SELECT domain_name, mailbox_name, quota FROM mailbox_quota ORDER BY 1, 2");
}

using Rows = std::vector<std::string>;

constexpr std::size_t PAGE_SIZE = 4096;  // bytes, of a new file

class MailUserDbTest : public LoggingTest {
protected:
    MailUserDbTest() { makeDirectory(FOLDER); }

    MailUserDbHelper helper;
};

// With an empty table.
class MailUserDbStoreTest : public MailUserDbTest {
protected:
    MailUserDbStoreTest() { EXPECT_TRUE(helper.initMailUserdb(true)); }

    void store(const std::string& domain, const std::string& mailbox, const std::string& quota) {
        sqliteExecute(FILE_PATH, "INSERT INTO mailbox_quota VALUES ('" + domain + "', '" + mailbox +
                                     "', '" + quota + "')");
    }
};

}  // namespace corvo::test::userdb
