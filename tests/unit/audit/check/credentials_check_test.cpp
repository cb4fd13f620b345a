#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "audit/check/checks.h"
#include "tests/unit/audit/check/check_fixture.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

const std::string DSN = "/etc/vhc/private/dsn.ini";
const std::string SHADOW = "/etc/vhc/.vhc.shadow";
const std::string OVER_THE_NETWORK =
    "ok|database socket|not used: the server is reached over the network|";

class CredentialsCheckTest : public CheckTest {
protected:
    CredentialsCheckTest() {
        writeFile(DSN, "[corvo]\nhost = db.example\n", 0, 0, 0600);
        writeFile(SHADOW, "secret\n", 0, 0, 0600);
    }

    static Results ofSocket(const std::string& path) {
        return resultsOf([&](const auto& sink) { audit::checkSocket(sink, path); });
    }
};

TEST_F(CredentialsCheckTest, FilesOfRootsAloneAreWellKept) {
    EXPECT_THAT(resultsOf(audit::checkCredentials),
                ElementsAre("ok|credentials|/etc/vhc/private/dsn.ini|",
                            "ok|password|/etc/vhc/.vhc.shadow|", OVER_THE_NETWORK));
}

TEST_F(CredentialsCheckTest, ThePasswordFileIsNotNeededWhereTheOtherHasThePassword) {
    writeFile(DSN, "[corvo]\nhost = db.example\npassword =\n", 0, 0, 0600);
    std::filesystem::remove(SHADOW);
    EXPECT_THAT(resultsOf(audit::checkCredentials),
                ElementsAre("ok|credentials|/etc/vhc/private/dsn.ini|",
                            "ok|password|in /etc/vhc/private/dsn.ini|", OVER_THE_NETWORK));
}

TEST_F(CredentialsCheckTest, AMissingPasswordIsAProblem) {
    std::filesystem::remove(SHADOW);
    EXPECT_EQ(resultsOf(audit::checkCredentials).at(1),
              "problem|password|/etc/vhc/.vhc.shadow: No such file or directory|"
              "look at it by hand, or check as a user who may read it");
}

TEST_F(CredentialsCheckTest, FilesThatEverybodyMayReadAreProblems) {
    std::filesystem::permissions(DSN, std::filesystem::perms(0644));
    std::filesystem::permissions(SHADOW, std::filesystem::perms(0604));
    EXPECT_THAT(resultsOf(audit::checkCredentials),
                ElementsAre("problem|credentials|/etc/vhc/private/dsn.ini can be read by "
                            "everybody: 0:0 0644|chmod o-rwx /etc/vhc/private/dsn.ini",
                            "problem|password|/etc/vhc/.vhc.shadow can be read by everybody: 0:0 "
                            "0604|chmod o-rwx /etc/vhc/.vhc.shadow",
                            OVER_THE_NETWORK));
}

TEST_F(CredentialsCheckTest, AFileThatAnotherOwnsIsAProblem) {
    chownToPopuser(SHADOW);
    EXPECT_EQ(resultsOf(audit::checkCredentials).at(1),
              "problem|password|/etc/vhc/.vhc.shadow can be changed by others: 1031:1032 0600|"
              "chown root /etc/vhc/.vhc.shadow; chmod go-w /etc/vhc/.vhc.shadow");
}

TEST_F(CredentialsCheckTest, WithoutTheFileTheDefaultsAreTaken) {
    std::filesystem::remove(DSN);
    EXPECT_EQ(resultsOf(audit::checkCredentials).at(0),
              "warning|credentials|/etc/vhc/private/dsn.ini is not there: the defaults are taken|"
              "write host, username and dbname into it, below [corvo]");
}

TEST_F(CredentialsCheckTest, WhatIsNoSocketIsAProblem) {
    const std::string advice =
        "|start the database server, or write the path of its socket as "
        "MYSQL_SOCKET into /etc/vhc/vhc.conf";
    EXPECT_THAT(
        ofSocket("/run/none.sock"),
        ElementsAre("problem|database socket|/run/none.sock: No such file or directory" + advice));
    EXPECT_THAT(ofSocket(SHADOW),
                ElementsAre("problem|database socket|/etc/vhc/.vhc.shadow is no socket" + advice));
}

TEST_F(CredentialsCheckTest, ASocketIsRight) {
    const UniqueFd server(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/some.sock");
    ASSERT_EQ(::bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_THAT(ofSocket("/run/some.sock"), ElementsAre("ok|database socket|/run/some.sock|"));
}

}  // namespace
}  // namespace corvo::test
