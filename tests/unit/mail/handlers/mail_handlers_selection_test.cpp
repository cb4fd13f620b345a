#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "mail/handlers/mail_handlers_db.h"
#include "tests/support/logging.h"
#include "tests/unit/mail/handlers/mail_handlers_fixture.h"

namespace corvo::test::handlers {
namespace {

// Selecting.

TEST_F(MailHandlersDbTest, SelectsBestPriorityFirstSoLastInTheList) {
    insert(1, 5, 10, "middle", "a@b.c");
    insert(1, 5, 30, "best", "a@b.c");
    insert(1, 5, 1, "worst", "a@b.c");
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(found.names(), (Rows{"worst", "middle", "best"}));
}

TEST_F(MailHandlersDbTest, SelectedRecordHoldsRowAndKey) {
    insert(1, 5, 10, "n", "a@b.c");
    List found;
    Record key(5, 1, "key's name", "a@b.c");
    EXPECT_EQ(select(found, key.enabled().priority(99).isProtected()), 0);
    ASSERT_NE(found.list.first, nullptr);
    EXPECT_EQ(describe(*found.list.first->record), "0|5|1|n|a@b.c|exe|ctx|0|1");
}

TEST_F(MailHandlersDbTest, SelectLooksAtEveryKeyField) {
    insert(1, 5, 10, "n", "a@b.c");
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b.c")), 0);
    EXPECT_EQ(select(found, Record(5, 2, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(select(found, Record(6, 1, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b").enabled()), 0);
    EXPECT_EQ(select(found, Record(5, 1, nullptr, nullptr).enabled()), 0);
    EXPECT_EQ(found.names(), Rows());
}

TEST_F(MailHandlersDbTest, SelectsGlobalHandlers) {
    insert(1, 4, 10, "for all", "all");
    insert(1, 4, 10, "for recipients", "all-recipients");
    const std::vector<std::pair<const char*, Rows>> keys = {
        {nullptr, {"for all"}}, {"all", {"for all"}}, {"all-recipients", {"for recipients"}}};
    for (const auto& [address, names] : keys) {
        List found;
        EXPECT_EQ(select(found, Record(4, 1, nullptr, address).enabled()), 0);
        EXPECT_EQ(found.names(), names);
    }
}

TEST_F(MailHandlersDbTest, SelectRejectsOtherAddressesOfGlobalHandlers) {
    List found;
    for (const std::string address : {"", "info@example.com", "ALL"}) {
        EXPECT_EQ(select(found, Record(4, 1, "n", address.c_str())), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"Incorrect recipient address for global handler `" + address +
                      "', expected [NULL|all|all-recipients]"});
    }
    EXPECT_EQ(found.names(), Rows());
}

TEST_F(MailHandlersDbTest, SelectCutsLongAddresses) {
    const std::string fits(501, 'x');
    insert(1, 5, 10, "n", fits);
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, (fits + "yz").c_str()).enabled()), 0);
    ASSERT_EQ(found.names(), Rows{"n"});
    EXPECT_EQ(found.list.first->record->address, fits);
}

TEST_F(MailHandlersDbTest, SelectByAddressFillsWholeRecords) {
    insert(2, 5, 7, "n", "a@b.c");
    insert(2, 5, 7, "other", "aa@b.c");
    List found;
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    ASSERT_EQ(found.names(), Rows{"n"});
    EXPECT_EQ(describe(*found.list.first->record), "7|5|2|n|a@b.c|exe|ctx|0|1");
}

TEST_F(MailHandlersDbTest, SelectionsAddInFrontOfTheList) {
    insert(1, 5, 0, "first", "a@b.c");
    insert(2, 5, 0, "second", "a@b.c");
    List found;
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    EXPECT_EQ(found.names(), (Rows{"second", "first", "second", "first"}));
}

struct DomainSelection {
    const char* domain;
    Rows addresses;
};

TEST_F(MailHandlersDbTest, SelectionByDomainTakesTheDomainsOwnRowsOnly) {
    const DomainSelection selections[] = {
        {"a.com", {"a.com", "x@a.com"}},
        {"A.Com", {"a.com", "x@a.com"}},
        {"aa.com", {"x@aa.com"}},
        {"a.com.org", {"x@a.com.org"}},
        {"com", {}},
        {"x", {}},
        {"%", {"x@%"}},
        {"a%", {}},
        {"_.com", {"x@_.com"}},
        {"a_com", {}},
        {"o'brien.com", {"x@o'brien.com"}},
        {"back\\slash.com", {"x@back\\slash.com"}},
        {"line\nend.com", {"x@line\nend.com"}},
        {"\"", {}},
        {"", {"x@"}},
        {"a.com') OR 1=1 --", {}},
    };
    for (const char* address :
         {"a.com", "x@a.com", "x@aa.com", "x@a.com.org", "a.com@other.net", "x@%", "x@_.com",
          "x@o''brien.com", "x@back\\slash.com", "x@line\nend.com", "x@", "all"})
        insert(1, 5, 0, address, address);
    for (const auto& [domain, addresses] : selections) {
        for (const auto selection : {mh_db_select_by_domain_name, mh_db_select_by_addr}) {
            List found;
            EXPECT_EQ(selection(nullptr, &found.list, domain), 0);
            Rows names = found.names();
            std::reverse(names.begin(), names.end());
            EXPECT_EQ(names, addresses) << domain;
        }
    }
}

TEST_F(MailHandlersDbTest, SelectionByDomainTakesAnAddressForADomain) {
    insert(1, 5, 0, "n", "x@a.com");
    insert(1, 5, 0, "n", "xx@a.com");
    List found;
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, "x@a.com"), 0);
    EXPECT_EQ(found.names(), Rows{"n"});
}

TEST_F(MailHandlersDbTest, SelectionReportsPatternThatIsTooLong) {
    List found;
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, std::string(60'000, 'x').c_str()),
              0);
    insert(1, 5, 0, "n", "x@a.com");
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, std::string(60'000, 'x').c_str()),
              -1);
    expectLogged(
        {"Unable to select data from handlers database: LIKE or GLOB pattern too complex"});
}

TEST_F(MailHandlersDbTest, OddNamesAreOnlyNames) {
    for (const char* name : {"'; drop table handlers; --", "o'brien", "\"", "%", "_", "back\\slash",
                             "line\nend", "%s%n", ""}) {
        EXPECT_EQ(Record(5, 1, name, name).add(), 0) << name;
        EXPECT_EQ(Record(5, 2, name, "x@y.z").add(), 0) << name;
        EXPECT_EQ(mh_db_remove_name(nullptr, name), 0) << name;
        EXPECT_EQ(allRows(), Rows()) << name;
        EXPECT_EQ(Record(5, 1, "n", name).add(), 0) << name;
        EXPECT_EQ(mh_db_remove_addr(nullptr, name), 0) << name;
        EXPECT_EQ(allRows(), Rows()) << name;
    }
}

}  // namespace
}  // namespace corvo::test::handlers
