// The program mail_audit, from its command line to its exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/whole_run_fixture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test::runs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::ordered_json;

const std::string DOMAIN = MAILNAMES + "/example.com";
const std::string HOME = DOMAIN + "/info";
const std::string DOTQMAIL = HOME + "/.qmail";
const std::string SIZE_FILE = HOME + "/Maildir/maildirsize";

// A server in order, with one mailbox.
class AuditTest : public WholeRunTest {
protected:
    AuditTest() {
        panel.domain("example.com").mailname("info").quota(10485760);
        EXPECT_EQ(mailRebuild().status, 0);
    }

    static ProcessResult audit(const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {mailAuditBinary()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }

    // What `diff` finds, "<kind>: <reason>" each, with the run that repairs it.
    static std::vector<std::string> differences(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), {"diff", "--format", "jsonl", "--recount"});
        const ProcessResult result = audit(arguments);
        std::vector<std::string> found;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            const Json item = Json::parse(line);
            found.push_back(item["kind"].get<std::string>() + ": " +
                            item["reason"].get<std::string>() + " " + item["repair"].dump());
        }
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, found.empty() ? 0 : 1);
        return found;
    }
};

TEST_F(AuditTest, ServerInOrderDiffersInNothing) {
    const ProcessResult result = audit({"diff", "--recount", "--extras"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "0 of 1 mailbox differs.\n");
    EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace corvo::test::runs
