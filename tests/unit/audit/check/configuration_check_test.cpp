#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

const std::string FILE_PATH = "/etc/vhc/vhc.conf";

class ConfigurationCheckTest : public CheckTest {
protected:
    static std::string ofFile(const std::string& contents, uid_t owner, mode_t mode) {
        writeFile(FILE_PATH, contents, owner, 0, mode);
        return resultsOf(audit::checkConfiguration).at(0);
    }

    static Results ofRoot(const std::string& root) {
        return resultsOf([&](const auto& sink) { audit::checkRootSetting(sink, root); });
    }
};

TEST_F(ConfigurationCheckTest, WithoutTheFileTheDefaultsAreTaken) {
    EXPECT_THAT(resultsOf(audit::checkConfiguration),
                ElementsAre("warning|configuration|/etc/vhc/vhc.conf is not there: the defaults "
                            "are taken|write MYSQL_SOCKET into it, and CORVO_MAILNAMES_D for "
                            "another root",
                            "ok|mail names root setting|/var/qmail/mailnames|"));
}

TEST_F(ConfigurationCheckTest, SaysWhichRootIsSet) {
    EXPECT_THAT(ofRoot("/srv/mail"), ElementsAre("ok|mail names root setting|/srv/mail|"));
}

TEST_F(ConfigurationCheckTest, CapitalsInTheRootAreWarnedOf) {
    EXPECT_THAT(ofRoot("/srv/Mail"),
                ElementsAre("warning|mail names root setting|/srv/Mail has capitals: maildirsize "
                            "is looked for in lower case|use a root without capitals"));
}

TEST_F(ConfigurationCheckTest, ARootThatIsNoAbsolutePathIsAProblem) {
    EXPECT_THAT(ofRoot("mail"),
                ElementsAre("problem|mail names root setting|CORVO_MAILNAMES_D is no absolute "
                            "path: mail|write the whole path into /etc/vhc/vhc.conf"));
}

TEST_F(ConfigurationCheckTest, AFileThatRootAloneMayChangeIsRight) {
    EXPECT_EQ(ofFile("", 0, 0664), "ok|configuration|/etc/vhc/vhc.conf|");
}

TEST_F(ConfigurationCheckTest, AFileThatOthersMayChangeIsAProblem) {
    const std::string advice = "|chown root /etc/vhc/vhc.conf; chmod go-w /etc/vhc/vhc.conf";
    EXPECT_EQ(
        ofFile("", POPUSER_UID, 0644),
        "problem|configuration|/etc/vhc/vhc.conf can be changed by others: 1031:0 0644" + advice);
    EXPECT_EQ(
        ofFile("", 0, 0646),
        "problem|configuration|/etc/vhc/vhc.conf can be changed by others: 0:0 0646" + advice);
}

TEST_F(ConfigurationCheckTest, WhatIsNoFileIsAProblem) {
    makeDirectory(FILE_PATH);
    EXPECT_EQ(resultsOf(audit::checkConfiguration).at(0),
              "problem|configuration|/etc/vhc/vhc.conf: Invalid argument|"
              "look at it by hand, or check as a user who may read it");
}

}  // namespace
}  // namespace corvo::test
