#include "audit/item.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/files.h"

namespace corvo::audit {
namespace {

using Json = nlohmann::ordered_json;

Json objectOf(const Item& item) {
    return Json::parse(jsonOf(recordOf(item)));
}

Item missingForward() {
    Item item;
    item.kind = ItemKind::forward;
    item.domain = "example.com";
    item.mailbox = "info";
    item.path = "/mail/example.com/info/.qmail";
    item.reason = "does not forward";
    item.expected = "&a@example.net";
    item.repair = Repair::all;
    return item;
}

TEST(ItemTest, ObjectHasEveryFieldInAnOrderThatStays) {
    EXPECT_EQ(jsonOf(recordOf(missingForward())),
              R"({"kind":"forward","domain":"example.com","mailbox":"info@example.com",)"
              R"("path":"/mail/example.com/info/.qmail","expected":"&a@example.net","found":null,)"
              R"("reason":"does not forward","repair":["--all"],"extra":false})");
}

TEST(ItemTest, LineNamesWhatIsExpectedAndFoundAndTheRunThatRepairs) {
    Item item = missingForward();
    EXPECT_EQ(lineOf(item),
              "/mail/example.com/info/.qmail: does not forward, expected \"&a@example.net\" "
              "[--all]");
    item.expected.reset();
    item.found = "";
    item.repair = Repair::either;
    EXPECT_EQ(lineOf(item),
              "/mail/example.com/info/.qmail: does not forward, found \"\" [--all, --fast]");
    item.found.reset();
    item.repair = Repair::none;
    EXPECT_EQ(lineOf(item),
              "/mail/example.com/info/.qmail: does not forward [no run repairs this]");
}

TEST(ItemTest, RepairsAreAListOfRuns) {
    Item item = missingForward();
    item.repair = Repair::either;
    EXPECT_EQ(objectOf(item)["repair"], Json::array({"--all", "--fast"}));
    item.repair = Repair::none;
    EXPECT_EQ(objectOf(item)["repair"], Json::array());
}

TEST(ItemTest, WhatIsOfNoDomainAndNoMailboxHasNull) {
    Item item = missingForward();
    item.domain.clear();
    item.mailbox.clear();
    EXPECT_TRUE(objectOf(item)["domain"].is_null());
    EXPECT_TRUE(objectOf(item)["mailbox"].is_null());
}

TEST(ItemTest, ExtraIsWhatThePanelDoesNotKnow) {
    Item item;
    item.kind = ItemKind::home;
    item.path = "/mail/example.com/old";
    item.reason = "is left alone";
    item.isExtra = true;
    EXPECT_EQ(objectOf(item)["extra"], true);
    EXPECT_EQ(lineOf(item), "/mail/example.com/old: is left alone [the panel does not know it]");
}

TEST(ItemTest, LineOfARowNamesItsMailbox) {
    Item item = missingForward();
    item.kind = ItemKind::quotaRow;
    item.path = "/userdb";
    item.reason = "has no row for it";
    item.expected = "5";
    EXPECT_EQ(lineOf(item),
              "info@example.com in /userdb: has no row for it, expected \"5\" [--all]");
    item.mailbox.clear();
    EXPECT_EQ(lineOf(item), "@example.com in /userdb: has no row for it, expected \"5\" [--all]");
    EXPECT_EQ(objectOf(item)["mailbox"], "@example.com");
}

TEST(ItemTest, ForeignTextsAreEscapedEachInItsWay) {
    Item item = missingForward();
    item.kind = ItemKind::quotaRow;
    item.mailbox = "a\x1b[2J";
    item.domain = "\xff.example";
    item.path = "/mail/\u202e";
    item.reason = "b\r";
    item.expected = "\xc3";
    item.found = "c\n\\";
    EXPECT_EQ(lineOf(item),
              "a\\x1b[2J@\\xff.example in /mail/\\xe2\\x80\\xae: b\\x0d, expected \"\\xc3\", found "
              "\"c\\x0a\\\\\" [--all]");
    const Json object = objectOf(item);
    EXPECT_EQ(object["mailbox"], "a\x1b[2J@\\xff.example");
    EXPECT_EQ(object["domain"], "\\xff.example");
    EXPECT_EQ(object["path"], "/mail/\u202e");
    EXPECT_EQ(object["reason"], "b\r");
    EXPECT_EQ(object["expected"], "\\xc3");
    EXPECT_EQ(object["found"], "c\n\\");
}

TEST(ItemTest, KindsAreThoseOfTheSchema) {
    Json names = Json::array();
    for (int kind = 0; kind <= static_cast<int>(ItemKind::overquotaRecords); ++kind)
        names.push_back(nameOf(static_cast<ItemKind>(kind)));
    const Json schema = Json::parse(test::contentsOf(CORVO_AUDIT_SCHEMA));
    Json documented = Json::array();
    for (const Json& kind : schema["definitions"]["diff_item"]["properties"]["kind"]["oneOf"])
        documented.push_back(kind["const"]);
    EXPECT_EQ(names, documented);
}

}  // namespace
}  // namespace corvo::audit
