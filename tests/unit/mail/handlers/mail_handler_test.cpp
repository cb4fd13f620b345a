#include "mail/handlers/mail_handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test {
namespace {

class MailHandlerTest : public LoggingTest {
protected:
    MailHandlerTest() {
        mh_data_init_ex(&record);
        mh_list_init(&list);
    }
    void TearDown() override { mh_list_free(&list); }

    std::string namesInList() const {
        std::string names;
        for (const mh_list_node* node = list.first; node != nullptr; node = node->next)
            names += std::string(node->record->name) + " ";
        return names;
    }

    char name[16] = "name";
    char address[16] = "address";
    char executable[16] = "executable";
    char context[16] = "context";
    mh_data record;
    mh_list list;
};

void expectDefaults(const mh_data& record) {
    EXPECT_EQ(record.priority, 0);
    EXPECT_EQ(record.type, 5);
    EXPECT_EQ(record.queue, 5);
    EXPECT_EQ(record.name, nullptr);
    EXPECT_EQ(record.address, nullptr);
    EXPECT_EQ(record.executable, nullptr);
    EXPECT_EQ(record.context, nullptr);
    EXPECT_FALSE(record.protect_on_restore);
    EXPECT_FALSE(record.enabled);
}

TEST_F(MailHandlerTest, DefaultsReplaceEveryField) {
    std::memset(&record, 0x55, sizeof record);
    mh_data_init_ex(&record);
    expectDefaults(record);
}

TEST_F(MailHandlerTest, NewRecordHasDefaults) {
    mh_data* const made = mh_data_init();
    ASSERT_NE(made, nullptr);
    expectDefaults(*made);
    mh_data_free(made);
}

TEST_F(MailHandlerTest, NullRecordsAreAllowed) {
    mh_data_init_ex(nullptr);
    mh_data_free_ex(nullptr);
    mh_data_free(nullptr);
    EXPECT_EQ(mh_data_clone(nullptr), nullptr);
}

TEST_F(MailHandlerTest, FlagsTakeOneByte) {
    EXPECT_EQ(sizeof record.protect_on_restore, 1U);
    EXPECT_EQ(sizeof record.enabled, 1U);
}

TEST_F(MailHandlerTest, CloneIsDeep) {
    record = {7, 4, 1, name, address, executable, context, true, true};
    mh_data* const copy = mh_data_clone(&record);
    ASSERT_NE(copy, nullptr);
    for (char* text : {name, address, executable, context})
        text[0] = '!';
    EXPECT_EQ(copy->priority, 7);
    EXPECT_EQ(copy->type, 4);
    EXPECT_EQ(copy->queue, 1);
    EXPECT_STREQ(copy->name, "name");
    EXPECT_STREQ(copy->address, "address");
    EXPECT_STREQ(copy->executable, "executable");
    EXPECT_STREQ(copy->context, "context");
    EXPECT_TRUE(copy->protect_on_restore);
    EXPECT_TRUE(copy->enabled);
    mh_data_free(copy);
}

TEST_F(MailHandlerTest, CloneKeepsNullStrings) {
    mh_data* const copy = mh_data_clone(&record);
    ASSERT_NE(copy, nullptr);
    expectDefaults(*copy);
    mh_data_free(copy);
}

TEST_F(MailHandlerTest, FreedStringsAreNull) {
    record.name = ::strdup("x");
    record.context = ::strdup("y");
    mh_data_free_ex(&record);
    EXPECT_EQ(record.name, nullptr);
    EXPECT_EQ(record.context, nullptr);
    mh_data_free_ex(&record);
}

TEST_F(MailHandlerTest, AddressIsReplacedByCopy) {
    EXPECT_EQ(mh_data_set_address(&record, address), 0);
    address[0] = '!';
    EXPECT_STREQ(record.address, "address");
    EXPECT_EQ(mh_data_set_address(&record, "other"), 0);
    EXPECT_STREQ(record.address, "other");
    mh_data_free_ex(&record);
}

TEST_F(MailHandlerTest, ListHoldsLastRecordFirst) {
    record.name = name;
    for (const char letter : {'a', 'b', 'c'}) {
        name[0] = letter;
        EXPECT_EQ(mh_list_add(&list, &record), 0);
    }
    EXPECT_EQ(namesInList(), "came bame aame ");
}

TEST_F(MailHandlerTest, EveryNodeKnowsTheLinkThatPointsToIt) {
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(mh_list_add(&list, &record), 0);
    mh_list_node** link = &list.first;
    for (; *link != nullptr; link = &(*link)->next)
        EXPECT_EQ((*link)->link, link);
}

TEST_F(MailHandlerTest, ListOwnsDeepCopies) {
    record.name = name;
    EXPECT_EQ(mh_list_add(&list, &record), 0);
    name[0] = '!';
    EXPECT_EQ(namesInList(), "name ");
    EXPECT_NE(list.first->record, &record);
}

TEST_F(MailHandlerTest, FreedListIsEmptyAndUsable) {
    EXPECT_EQ(mh_list_add(&list, &record), 0);
    mh_list_free(&list);
    EXPECT_EQ(list.first, nullptr);
    EXPECT_EQ(mh_list_add(&list, &record), 0);
    EXPECT_NE(list.first, nullptr);
}

// Without memory.

TEST_F(MailHandlerTest, ReportsMissingMemoryForRecord) {
    requireExhaustibleMemory();
    expectChildLogs({"System error: Cannot allocate memory"}, [] {
        exhaustMemory();
        if (mh_data_init() != nullptr || errno != ENOMEM)
            ::_exit(1);
    });
}

TEST_F(MailHandlerTest, ReportsMissingMemoryForNode) {
    requireExhaustibleMemory();
    expectChildLogs({"System error: Cannot allocate memory"}, [this] {
        exhaustMemory();
        if (mh_list_add(&list, &record) != -1 || list.first != nullptr)
            ::_exit(1);
    });
}

TEST_F(MailHandlerTest, ReportsMissingMemoryForAddress) {
    requireExhaustibleMemory();
    expectChildLogs({"System error: Cannot allocate memory"}, [this] {
        exhaustMemory();
        if (mh_data_set_address(&record, "all") != -1)
            ::_exit(1);
    });
}

TEST_F(MailHandlerTest, CloneWithoutMemoryIsNullAndSilent) {
    requireExhaustibleMemory();
    expectChildLogs({}, [this] {
        exhaustMemory();
        if (mh_data_clone(&record) != nullptr)
            ::_exit(1);
    });
}

TEST_F(MailHandlerTest, ReportsRecordThatCannotBeCopied) {
    requireExhaustibleMemory();
    std::string endless(32U << 20, 'x');
    for (char* mh_data::*string :
         {&mh_data::name, &mh_data::address, &mh_data::executable, &mh_data::context}) {
        mh_data large = record;
        large.*string = endless.data();
        expectChildLogs({"Unable to clone handlers data record"}, [&] {
            limitMemory(1);
            if (mh_list_add(&list, &large) != -1 || errno != ENOMEM)
                ::_exit(1);
        });
    }
}

}  // namespace
}  // namespace corvo::test
