#include "restore/server_parameters.h"

#include <gtest/gtest.h>

#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

using namespace corvo::mail::restore;
using corvo::mysql::Connection;
using corvo::mysql::Field;
using corvo::mysql::mError;

using StringGetter = Field (*)(const std::string& name, Connection& connection);
using BoolGetter = bool (*)(const std::string& name, Connection& connection, bool defaultValue);

const StringGetter STRING_GETTERS[] = {getStringMiscParam, getStringMailServerParam,
                                       getStringMiscParamSafe, getStringMailServerParamSafe};
const BoolGetter BOOL_GETTERS[] = {getBoolMiscParamSafe, getBoolMailServerParamSafe};

class ServerParametersTest : public WalkTest {
protected:
    /// Sets the parameter "x" in both tables.
    void setBoth(const std::string& value) {
        panel.misc("x", value);
        panel.mailServer("x", value);
    }

    void setBothNull() {
        setBoth("");
        panel.execute("UPDATE misc SET val=NULL");
        panel.execute("UPDATE ServiceNodeConfiguration SET value=NULL");
    }

    void dropBoth() {
        drop("misc");
        drop("ServiceNodeConfiguration");
    }

    static Printed accessWarning(const std::string& statement) {
        return warning("Warning: MySQL Error on Mail Authentication Type query: " +
                       errorOf(statement) + ", ignored");
    }

    Connection connection{true};
};

TEST_F(ServerParametersTest, StringIsReadAsItStands) {
    setBoth(" Zwölf ");
    for (const StringGetter get : STRING_GETTERS) {
        const Field field = get("x", connection);
        EXPECT_EQ(field.value, " Zwölf ");
        EXPECT_FALSE(field.null);
    }
}

TEST_F(ServerParametersTest, EmptyStringIsNotNull) {
    setBoth("");
    for (const StringGetter get : STRING_GETTERS)
        EXPECT_FALSE(get("x", connection).null);
}

TEST_F(ServerParametersTest, MissingRowAndNullGiveAnEmptyStringWithTheNullFlag) {
    setBothNull();
    for (const StringGetter get : STRING_GETTERS) {
        for (const char* name : {"x", "missing"}) {
            const Field field = get(name, connection);
            EXPECT_EQ(field.value, "");
            EXPECT_TRUE(field.null) << name;
        }
    }
}

TEST_F(ServerParametersTest, FirstOfSeveralRowsCounts) {
    panel.execute("ALTER TABLE misc DROP PRIMARY KEY");
    panel.execute("INSERT INTO misc (param, val) VALUES ('x', 'first'), ('x', 'second')");
    EXPECT_EQ(getStringMiscParam("x", connection).value, "first");
}

TEST_F(ServerParametersTest, MailServerParametersOfOtherNodesAndSectionsDoNotCount) {
    panel.execute(
        "INSERT INTO ServiceNodeConfiguration (serviceNodeId, section, name, value) VALUES "
        "(2, 'mailServer', 'x', 'other node'), (1, 'webServer', 'x', 'other section')");
    EXPECT_TRUE(getStringMailServerParam("x", connection).null);
}

TEST_F(ServerParametersTest, DatabaseErrorsPropagateFromThePlainGetters) {
    dropBoth();
    EXPECT_THROW(getStringMiscParam("x", connection), mError);
    EXPECT_THROW(getStringMailServerParam("x", connection), mError);
}

TEST_F(ServerParametersTest, DatabaseErrorIsAWarningAndCountsAsMissing) {
    dropBoth();
    StreamCapture capture;
    EXPECT_TRUE(getStringMiscParamSafe("x", connection).null);
    EXPECT_TRUE(getStringMailServerParamSafe("x", connection).null);
    const Printed printed =
        accessWarning(statement::misc("x")) + accessWarning(statement::mailServer("x"));
    EXPECT_EQ(capture.err(), printed.err);
    EXPECT_EQ(capture.out(), printed.out);
}

TEST_F(ServerParametersTest, OnlyTheWordTrueIsTrue) {
    const struct {
        const char* value;
        bool expected;
    } cases[] = {{"true", true}, {"TRUE", false}, {"True", false},  {"1", false},
                 {"yes", false}, {"", false},     {" true", false}, {"false", false}};
    for (const auto& [value, expected] : cases) {
        setBoth(value);
        for (const BoolGetter get : BOOL_GETTERS)
            EXPECT_EQ(get("x", connection, !expected), expected) << value;
    }
}

TEST_F(ServerParametersTest, NullBoolIsFalse) {
    setBothNull();
    for (const BoolGetter get : BOOL_GETTERS)
        EXPECT_FALSE(get("x", connection, true));
}

TEST_F(ServerParametersTest, MissingBoolIsTheDefault) {
    for (const BoolGetter get : BOOL_GETTERS) {
        EXPECT_TRUE(get("x", connection, true));
        EXPECT_FALSE(get("x", connection, false));
    }
}

TEST_F(ServerParametersTest, BoolThatCannotBeReadIsTheDefaultWithAWarning) {
    dropBoth();
    StreamCapture capture;
    EXPECT_TRUE(getBoolMiscParamSafe("x", connection, true));
    EXPECT_FALSE(getBoolMailServerParamSafe("x", connection, false));
    const Printed printed =
        accessWarning(statement::misc("x")) + accessWarning(statement::mailServer("x"));
    EXPECT_EQ(capture.err(), printed.err);
    EXPECT_EQ(capture.out(), printed.out);
}

}  // namespace
}  // namespace corvo::test
