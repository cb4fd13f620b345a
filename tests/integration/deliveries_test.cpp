// Mail arrives while full runs repeat over the mailboxes that it goes to. No message is lost.
//
// 2,000 messages go through a program, 1,600 of them through Courier's and 400 through Dovecot's,
// and more into a Maildir or to forwards alone. A machine that is too slow for so many in time does
// with fewer.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/delivery_reader.h"
#include "tests/integration/judges_agents.h"
#include "tests/integration/judges_dovecot.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"

namespace corvo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int FEWEST_PROGRAMS = 100;           // in time, on any machine
constexpr std::chrono::seconds TIME{25};       // for each test
constexpr std::chrono::milliseconds PAUSE{1};  // between messages: runs need a processor, too

const std::string MAILDIR_LINE = "./Maildir/";

const std::string ENOUGH = "/run/enough";
const std::string RUNS = "/run/runs";

Recipient recipientOf(const std::string& name, bool delivers,
                      const std::vector<std::string>& forwards) {
    return {MAILNAMES + "/example.com/" + name, name + "@example.com", delivers, forwards};
}

class DeliveriesTest : public SandboxTest {
protected:
    DeliveriesTest() {
        installMailServer();
        PanelDatabase::Domain domain = panel.domain("example.com");
        domain.mailname("info");
        domain.mailname("office");
        forwardThreeWays(domain.mailname("team").postbox(false));
        forwardThreeWays(domain.mailname("sales"));
        domain.mailname("twice")
            .postbox(false)
            .group()
            .redirect("a@b.c")
            .redirect("d@e.f")
            .redirect("a@b.c");
    }

    // Full runs, most over delivery files that are to become others: the delivery line is now the
    // agent's and now the Maildir's, and each time the forwards come in another order. Says how
    // many they were, or what went wrong.
    void repeatRuns(const std::string& agentLine) {
        for (int runs = 0; !exists(ENOUGH); ++runs) {
            setDefaultLine(runs % 3 == 0 ? MAILDIR_LINE : agentLine);
            panel.execute(
                "UPDATE mail_redir SET address = CASE address WHEN 'x@b.c' THEN 'y@e.f'"
                " WHEN 'y@e.f' THEN 'z@h.i' WHEN 'z@h.i' THEN 'x@b.c' ELSE address END");
            const ProcessResult result = run({mailRebuildBinary()});
            if (result.status != 0 || result.err.find("failed") != std::string::npos) {
                writeFile(RUNS, result.err);
                return;
            }
            writeFile(RUNS, std::to_string(runs + 1) + " runs");
        }
    }

    void deliverWhileRunsRepeat(const std::string& agentLine, int programs) {
        ASSERT_EQ(run({mailRebuildBinary()}).status, 0);
        SecondProcess runs([&](const SecondProcess::Ready& ready) {
            ready();
            repeatRuns(agentLine);
        });
        const auto end = Clock::now() + TIME;
        while (reader.programs() < programs && Clock::now() < end)
            for (const Recipient& recipient : recipients) {
                ASSERT_TRUE(reader.deliver(recipient)) << reader.complaint();
                std::this_thread::sleep_for(PAUSE);
            }
        writeFile(ENOUGH, "");
        ASSERT_TRUE(runs.endedWell());
        expectManyRuns();
        expectAllThere();
    }

    void expectManyRuns() const {
        const std::string told = contentsOf(RUNS);
        ASSERT_TRUE(told.ends_with(" runs")) << told;
        EXPECT_GE(std::stoi(told), 10);
        EXPECT_GE(reader.programs(), FEWEST_PROGRAMS);
        RecordProperty("runs", std::stoi(told));
        RecordProperty("messages", reader.messages());
        RecordProperty("programs", reader.programs());
    }

    void expectAllThere() const {
        for (const Recipient& recipient : recipients) {
            SCOPED_TRACE(recipient.address);
            EXPECT_EQ(DeliveryReader::foundIn(recipient), reader.deliveredTo(recipient));
            EXPECT_EQ(reader.deliveredTo(recipient).empty(), !recipient.delivers);
        }
    }

    const std::vector<std::string> threeWays = {"&x@b.c", "&y@e.f", "&z@h.i"};
    const std::vector<Recipient> recipients = {
        recipientOf("info", true, {}),
        recipientOf("office", true, {}),
        recipientOf("team", false, threeWays),
        recipientOf("sales", true, threeWays),
        recipientOf("twice", false, {"&a@b.c", "&d@e.f"}),
    };
    DeliveryReader reader;
    PanelDatabase panel;

private:
    static void forwardThreeWays(PanelDatabase::Mailname mailname) {
        mailname.group().redirect("x@b.c").redirect("y@e.f").redirect("z@h.i");
    }
};

TEST_F(DeliveriesTest, OfCourierLoseNothing) {
    installCourierAgent();
    deliverWhileRunsRepeat(DELIVERY_LINE, 1600);
}

TEST_F(DeliveriesTest, OfDovecotLoseNothing) {
    installDovecotAgent();
    const Dovecot dovecot;
    deliverWhileRunsRepeat(DOVECOT_LINE, 400);
}

// What the reader is worth: a file that is reset first does not stay unnoticed.
TEST_F(DeliveriesTest, ReaderNoticesAFileThatIsResetFirst) {
    const Recipient& recipient = recipients[3];
    const std::string file = recipient.home + "/.qmail";
    const std::string whole = "| true\n" + MAILDIR_LINE + "\n&x@b.c\n&y@e.f\n&z@h.i\n";
    ASSERT_EQ(run({mailRebuildBinary()}).status, 0);
    writeFile(file, whole);
    ASSERT_TRUE(reader.deliver(recipient)) << reader.complaint();
    const SecondProcess resets([&](const SecondProcess::Ready& ready) {
        ready();
        for (;;) {
            writeFile(file, "| true\n");
            writeFile(file, whole);
        }
    });
    const auto end = Clock::now() + TIME;
    bool noticed = false;
    while (!noticed && Clock::now() < end)
        noticed = !reader.deliver(recipient);
    EXPECT_TRUE(noticed);
}

}  // namespace
}  // namespace corvo::test
