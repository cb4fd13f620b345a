#include "driver/run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "lib/db++/error.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace corvo {
namespace {

using ::testing::HasSubstr;
using namespace test;  // NOLINT(google-build-using-namespace): the test's own vocabulary

int doMain(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    const int count = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    return do_main(count, argv.data());
}

class Run : public SandboxTest {
protected:
    Run() { installMailServer(); }
};

TEST_F(Run, AnUnknownArgumentGivesTheUsageOnStandardError) {
    StreamCapture streams;
    EXPECT_EQ(doMain({"/sbin/rebuild", "--quick"}), 1);
    EXPECT_EQ(streams.err(), "Usage: /sbin/rebuild [--fast | --handlers-only | --all]\n");
    EXPECT_EQ(streams.out(), "");
}

TEST_F(Run, WithoutAnyArgumentListEverythingIsRestored) {
    PanelDatabase panel;
    panel.domain("example.com");
    EXPECT_EQ(doMain({}), 0);
    EXPECT_EQ(modeOf(MAILNAMES + "/example.com"), "0750");
}

TEST_F(Run, StepsThatFailDoNotChangeTheStatus) {
    PanelDatabase panel;
    panel.execute("DROP TABLE domains");
    StreamCapture streams;
    EXPECT_EQ(doMain({"mail_rebuild"}), 0);
    EXPECT_THAT(streams.err(), HasSubstr("Warning: MySQL Query error on top Domains cycle: "));
    streams.out();
}

TEST_F(Run, AConnectionThatCannotBeOpenedIsThrown) {
    StreamCapture streams;
    writeFile("/etc/vhc/vhc.conf", "MYSQL_SOCKET /run/no.sock\n");
    EXPECT_THROW(doMain({"mail_rebuild"}), mysql::mError);
    EXPECT_THAT(streams.err(), HasSubstr("Unable to open admin password file: "));
    streams.out();
}

}  // namespace
}  // namespace corvo
