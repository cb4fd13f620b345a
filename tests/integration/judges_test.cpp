// Mail software that we did not write uses what the production binary restored.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "mail/quota/maildirpp_quota.h"
#include "tests/integration/judges_agents.h"
#include "tests/integration/judges_dovecot.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// sysexits.h: what a delivery agent answers when the mailbox is full.
constexpr int NO_PERMISSION = 77;
const std::string ADDRESS = "info@example.com";
const std::string HOME = MAILNAMES + "/example.com/info";
const std::string MAILDIR = HOME + "/Maildir";
const std::string QUOTA_FILE = MAILDIR + "/maildirsize";

std::string message(std::size_t size) {
    const std::string headers = "Subject: test\n\n";
    return headers + std::string(size - headers.size() - 1, 'x') + "\n";
}

void store(const std::string& folder, const std::string& name, std::size_t size) {
    writeFile(MAILDIR + folder + "/" + name, message(size), POPUSER_UID, POPUSER_GID, 0600);
}

// "used of limit, messages" as our own reader has it from the quota file alone.
std::string quotaFile() {
    long long used = -1;
    long long messages = -1;
    long long limit = -1;
    long long countLimit = -1;
    if (get_maildirpp_usage_and_limits(MAILDIR.c_str(), 1, &used, &messages, &limit, &countLimit) ==
        0)
        return "unreadable";
    return std::to_string(used) + " of " + std::to_string(limit) + ", " + std::to_string(messages);
}

// A home that the production binary made, with messages delivered as qmail would.
class JudgedTest : public SandboxTest {
protected:
    JudgedTest() { installMailServer(); }

    void mailboxOf(long long quota) {
        panel.domain("example.com").mailname("info").quota(quota);
        restore();
    }

    static void restore() {
        const ProcessResult result = run({mailRebuildBinary()});
        ASSERT_EQ(result.status, 0);
        ASSERT_THAT(result.err, Not(HasSubstr("failed")));
    }

    // Runs the delivery line of the restored .qmail file, in the home and with the rights of the
    // mailbox's owner. Returns the exit status.
    int deliver(std::size_t size, const std::string& options = "") {
        writeFile("/run/message", message(size));
        const ProcessResult result =
            run({"setpriv", "--reuid=popuser", "--regid=popuser", "--clear-groups", "sh", "-c",
                 "cd \"$1\" && exec sh -c \"$0\" <\"$2\"", deliveryCommand() + options, HOME,
                 "/run/message"},
                {{"DELIVERED_TO", ADDRESS}}, 20);
        lastWords = result.out + result.err;
        return result.status;
    }

    static std::string deliveryCommand() {
        const std::string file = contentsOf(HOME + "/.qmail");
        const std::string discard = "| true\n| ";
        EXPECT_THAT(file, StartsWith(discard));
        return file.substr(discard.size(), file.find('\n', discard.size()) - discard.size());
    }

    // Paths below the Maildir of the messages that no test stored. One to which an agent gives a
    // keyword is in cur at once.
    static std::vector<std::string> delivered() {
        std::vector<std::string> paths;
        for (const std::string folder : {"/new/", "/cur/"})
            for (const std::string& name : namesIn(MAILDIR + folder))
                if (name.find(".M1P1.mx") == std::string::npos)
                    paths.push_back(folder + name);
        return paths;
    }

    std::string lastWords;  // what the agent said on both streams
    PanelDatabase panel;
};

// --- Courier's deliverquota

class JudgedByCourierTest : public JudgedTest {
protected:
    void SetUp() override { installCourierAgent(); }
};

TEST_F(JudgedByCourierTest, AMessageUnderQuotaIsDeliveredAndCounted) {
    mailboxOf(1000);

    EXPECT_EQ(deliver(300), 0) << lastWords;

    ASSERT_EQ(delivered().size(), 1U);
    EXPECT_EQ(contentsOf(MAILDIR + delivered()[0]), message(300));
    EXPECT_THAT(contentsOf(QUOTA_FILE), StartsWith("1000S,0C\n           0           0\n"));
    EXPECT_EQ(quotaFile(), "300 of 1000, 1");
}

TEST_F(JudgedByCourierTest, AFurtherRunCountsWhatWasDelivered) {
    mailboxOf(1000);
    ASSERT_EQ(deliver(300), 0) << lastWords;
    ASSERT_EQ(deliver(301), 0) << lastWords;

    restore();

    EXPECT_EQ(contentsOf(QUOTA_FILE), "1000S,0C\n         601           2\n");
}

TEST_F(JudgedByCourierTest, ExactlyFullIsAcceptedAndOneByteMoreRefused) {
    mailboxOf(1000);
    store("/cur", "1.M1P1.mx,S=400:2,S", 400);
    restore();

    EXPECT_EQ(deliver(601), NO_PERMISSION) << lastWords;
    EXPECT_THAT(delivered(), IsEmpty());
    EXPECT_EQ(quotaFile(), "400 of 1000, 1");

    EXPECT_EQ(deliver(600), 0) << lastWords;
    EXPECT_EQ(quotaFile(), "1000 of 1000, 2");
}

TEST_F(JudgedByCourierTest, QuotaZeroRefusesTheSmallestMessage) {
    mailboxOf(0);

    EXPECT_EQ(deliver(16), NO_PERMISSION) << lastWords;

    EXPECT_THAT(delivered(), IsEmpty());
    EXPECT_EQ(quotaFile(), "0 of 1, 0");
}

TEST_F(JudgedByCourierTest, AnUnlimitedMailboxAcceptsAndCounts) {
    mailboxOf(-1);

    EXPECT_EQ(deliver(5'000'000), 0) << lastWords;

    EXPECT_EQ(delivered().size(), 1U);
    restore();
    EXPECT_EQ(contentsOf(QUOTA_FILE), "0S,0C\n     5000000           1\n");
}

TEST_F(JudgedByCourierTest, ItsRecountIsReadAndReplacedByOurs) {
    mailboxOf(1000);
    store("/.Trash/cur", "1.M1P1.mx,S=700:2,S", 700);
    restore();
    // It believes an old file no longer when the mailbox seems full, and leaves the trash out.
    using FileTime = std::filesystem::file_time_type;
    std::filesystem::last_write_time(QUOTA_FILE, FileTime::clock::now() - std::chrono::hours(1));

    EXPECT_EQ(deliver(500), 0) << lastWords;

    EXPECT_THAT(contentsOf(QUOTA_FILE), StartsWith("1000S\n"));
    EXPECT_EQ(quotaFile(), "500 of 1000, 1");
    restore();
    EXPECT_EQ(contentsOf(QUOTA_FILE), "1000S,0C\n        1200           2\n");
}

// --- Dovecot

class JudgedByDovecotTest : public JudgedTest {
protected:
    void SetUp() override { installDovecotAgent(); }

    // With -e a full mailbox is an exit status; without, a message back to the sender.
    int deliver(std::size_t size) { return JudgedTest::deliver(size, " -e"); }

    static ProcessResult doveadm(const std::string& verb) {
        ProcessResult result = run({"doveadm", "-f", "tab", "quota", verb, "-u", ADDRESS}, {}, 20);
        EXPECT_EQ(result.status, 0) << result.err;
        return result;
    }

    // "used KiB of limit KiB, messages": Dovecot tells sizes in units of 1024 bytes.
    static std::string quotaOfDovecot() {
        std::istringstream lines(doveadm("get").out);
        std::map<std::string, std::vector<std::string>> rows;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            std::vector<std::string> row(4);
            for (std::string& field : row)
                std::getline(fields, field, '\t');
            rows[row[1]] = {row[2], row[3]};
        }
        const auto storage = rows.find("STORAGE");
        const auto messages = rows.find("MESSAGE");
        if (storage == rows.end() || messages == rows.end())
            return "no quota";
        return storage->second[0] + " of " + storage->second[1] + ", " + messages->second[0];
    }
};

TEST_F(JudgedByDovecotTest, ReportsTheUsageAndLimitsThatWeWrote) {
    mailboxOf(10'485'760);
    store("/cur", "1.M1P1.mx,S=2048:2,S", 2048);
    store("/new", "2.M1P1.mx", 1024);
    store("/.Sent/cur", "3.M1P1.mx:2,S", 4096);
    store("/.Trash/cur", "4.M1P1.mx,S=1024:2,S", 1024);
    restore();
    const std::string written = contentsOf(QUOTA_FILE);
    const Dovecot dovecot;

    EXPECT_EQ(quotaOfDovecot(), "8 of 10240, 4");

    EXPECT_EQ(contentsOf(QUOTA_FILE), written);
    EXPECT_EQ(written, "10485760S,0C\n        8192           4\n");
}

TEST_F(JudgedByDovecotTest, ItsRecountOfAllFoldersIsOurs) {
    mailboxOf(10'485'760);
    store("/cur", "1.M1P1.mx,S=2048:2,S", 2048);
    store("/.Trash/new", "2.M1P1.mx", 1000);
    store("/.Archive.2020/cur", "3.M1P1.mx:2,S", 3000);
    run({"chown", "-R", "popuser:popuser", MAILDIR + "/.Archive.2020"});
    restore();
    ASSERT_EQ(quotaFile(), "6048 of 10485760, 3");
    writeFile(QUOTA_FILE, "10485760S,0C\n           7           1\n", POPUSER_UID, POPUSER_GID,
              0644);
    const Dovecot dovecot;

    doveadm("recalc");

    EXPECT_EQ(quotaFile(), "6048 of 10485760, 3");
}

TEST_F(JudgedByDovecotTest, ReportsAnUnlimitedMailboxAsSuch) {
    mailboxOf(-1);
    store("/cur", "1.M1P1.mx,S=2048:2,S", 2048);
    restore();
    const Dovecot dovecot;

    EXPECT_EQ(quotaOfDovecot(), "2 of -, 1");

    EXPECT_EQ(contentsOf(QUOTA_FILE), "0S,0C\n        2048           1\n");
}

TEST_F(JudgedByDovecotTest, ItsAgentDeliversAndBothCountIt) {
    mailboxOf(10'485'760);
    {
        const Dovecot dovecot;
        EXPECT_EQ(deliver(3072), 0) << lastWords;
        EXPECT_EQ(quotaOfDovecot(), "3 of 10240, 1");
    }
    ASSERT_EQ(delivered().size(), 1U);
    EXPECT_EQ(contentsOf(MAILDIR + delivered()[0]), message(3072));
    EXPECT_EQ(quotaFile(), "3072 of 10485760, 1");

    restore();

    EXPECT_EQ(contentsOf(QUOTA_FILE), "10485760S,0C\n        3072           1\n");
}

TEST_F(JudgedByDovecotTest, ExactlyFullIsAcceptedAndOneByteMoreRefused) {
    mailboxOf(1000);
    store("/cur", "1.M1P1.mx,S=400:2,S", 400);
    restore();
    const Dovecot dovecot;

    EXPECT_EQ(deliver(601), NO_PERMISSION) << lastWords;
    EXPECT_THAT(delivered(), IsEmpty());
    EXPECT_EQ(quotaFile(), "400 of 1000, 1");

    EXPECT_EQ(deliver(600), 0) << lastWords;
    EXPECT_EQ(quotaFile(), "1000 of 1000, 2");
}

TEST_F(JudgedByDovecotTest, QuotaZeroRefusesTheSmallestMessageWhereTheQuotaFileIsRead) {
    const bool refuses = isDovecotOfOldDialect();
    mailboxOf(0);
    {
        const Dovecot dovecot;
        EXPECT_EQ(deliver(16), refuses ? NO_PERMISSION : 0) << lastWords;
    }
    EXPECT_EQ(delivered().size(), refuses ? 0U : 1U);
    EXPECT_EQ(quotaFile(), refuses ? "0 of 1, 0" : "16 of 0, 1");

    restore();

    EXPECT_THAT(contentsOf(QUOTA_FILE), StartsWith("1S,0C\n"));
}

TEST_F(JudgedByDovecotTest, AnUnlimitedMailboxAccepts) {
    mailboxOf(-1);
    const Dovecot dovecot;

    EXPECT_EQ(deliver(5'000'000), 0) << lastWords;

    EXPECT_EQ(delivered().size(), 1U);
    EXPECT_EQ(quotaFile(), "5000000 of 0, 1");
}

TEST_F(JudgedByDovecotTest, ItPutsTheRowInPlaceOfALimitLoweredByAttachments) {
    mailboxOf(52'428'800);
    writeFile(HOME + "/@attachments/catalogue.pdf", std::string(20000, 'x'));
    restore();
    const std::string written = contentsOf(QUOTA_FILE);
    ASSERT_EQ(written, "52408800S,0C\n           0           0\n");
    {
        const Dovecot dovecot;
        EXPECT_EQ(quotaOfDovecot(), "0 of 51200, 0");
    }
    EXPECT_EQ(quotaFile(), "0 of 52428800, 0");

    restore();

    EXPECT_EQ(contentsOf(QUOTA_FILE), written);
}

}  // namespace
}  // namespace corvo::test
