// How long the forwards of a delivery file outlive its restoration.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "driver/mailbox_restoration.h"
#include "mail/delivery/dotqmail_manager.h"
#include "mail/home/mailname.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "utils/system_error.h"

namespace corvo::test {
namespace {

const std::string DOTQMAIL = MAILNAMES + "/example.com/info/.qmail";
const std::string OTHER_DOTQMAIL = MAILNAMES + "/example.com/other/.qmail";
const std::string LOCKS = "/run/lock/files";
const std::string NOT_DROPPED = "Unable to drop forwards from " + DOTQMAIL + ": ";

using Blocks = std::list<std::unique_ptr<char[]>>;

// All the memory that is to be had in blocks of a size.
Blocks takeAll(std::size_t size) {
    Blocks taken;
    try {
        for (;;)
            taken.push_back(std::make_unique<char[]>(size));
    } catch (const std::bad_alloc&) {
        return taken;
    }
}

class MailboxForwardsTest : public LoggingTest {
protected:
    MailboxForwardsTest() {
        installMailServer();
        makeDirectory(MAILNAMES + "/example.com");
        helper.registerMailbox("example.com", "other", true);
        helper.registerMailbox("example.com", "info", false);
        helper.finish();
        write("| true\n&a@b.c\n&d@e.f\n");
    }

    static void write(const std::string& text) {
        writeFile(DOTQMAIL, text, POPUSER_UID, POPUSER_GID, 0600);
    }

    // The group that the file belongs to, of whose forwards the second is named again.
    void restoreGroup() {
        helper.registerMailbox("example.com", "info", false);
        helper.registerMailRedirect("example.com", "info", "d@e.f");
    }

    void expectCarried() const { EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n&a@b.c\n"); }
    void expectDropped() const { EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n"); }

    static std::pair<ino_t, long> identity() {
        struct stat seen = {};
        EXPECT_EQ(::stat(DOTQMAIL.c_str(), &seen), 0);
        return {seen.st_ino, seen.st_ctim.tv_nsec};
    }

    MailboxRestorationHelper helper;
};

// --- when what was not named is dropped

// A slot and what it is about.
struct Slot {
    const char* name;
    std::function<void(MailboxRestorationHelper&)> call;
};

std::ostream& operator<<(std::ostream& stream, const Slot& slot) {
    return stream << slot.name;
}

class LeavingSlotTest : public MailboxForwardsTest, public ::testing::WithParamInterface<Slot> {};

TEST_P(LeavingSlotTest, DropsWhatWasNotNamed) {
    restoreGroup();
    expectCarried();
    GetParam().call(helper);
    expectDropped();
    streams.err();
    streams.out();
}

TEST_P(LeavingSlotTest, IsNotFailedByADropThatFails) {
    restoreGroup();
    // What is no delivery file any more, and none of what the slot itself is about.
    std::filesystem::remove(DOTQMAIL);
    makeDirectory(DOTQMAIL);
    EXPECT_NO_THROW(GetParam().call(helper));
    EXPECT_TRUE(streams.out().starts_with(NOT_DROPPED));
    EXPECT_TRUE(streams.err().find(NOT_DROPPED) != std::string::npos);
    EXPECT_TRUE(std::filesystem::is_directory(DOTQMAIL));
}

INSTANTIATE_TEST_SUITE_P(
    Forwards, LeavingSlotTest,
    ::testing::Values(
        Slot{"AnotherMailbox",
             [](auto& helper) { helper.registerMailbox("example.com", "other", true); }},
        Slot{"AnotherRedirect",
             [](auto& helper) { helper.registerMailRedirect("example.com", "other", "x@y.z"); }},
        Slot{"AnotherQuota",
             [](auto& helper) { helper.setMailboxQuota("example.com", "other", 1000); }},
        Slot{"Domain", [](auto& helper) { helper.registerDomain("example.net", false); }},
        Slot{"ServerSetting", [](auto& helper) { helper.enableRejectOverquota(true, false); }},
        Slot{"End", [](auto& helper) { helper.finish(); }}),
    [](const auto& slot) { return std::string(slot.param.name); });

TEST_F(MailboxForwardsTest, SlotsOfTheSameMailNameDropNothing) {
    restoreGroup();
    helper.setMailboxQuota("example.com", "info", 1000);
    helper.registerMailRedirect("example.com", "info", "d@e.f");
    helper.setMailboxQuota("Example.COM", "Info", 1000);
    expectCarried();
    streams.err();
    streams.out();
}

TEST_F(MailboxForwardsTest, MailNameThatIsMetAgainHasNoneCarriedOver) {
    restoreGroup();
    helper.registerMailRedirect("example.com", "other", "x@y.z");
    helper.registerMailRedirect("example.com", "info", "a@b.c");
    helper.finish();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n&a@b.c\n");
}

TEST_F(MailboxForwardsTest, EachMailboxBeginsAnewAlsoInAnotherSpelling) {
    for (const std::string name : {"info", "INFO"}) {
        SCOPED_TRACE(name);
        write("| true\n&a@b.c\n&d@e.f\n&g@h.i\n");
        restoreGroup();
        helper.registerMailbox("example.com", name, false);
        EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n");
        helper.registerMailRedirect("example.com", name, "a@b.c");
        EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@b.c\n&d@e.f\n");
        helper.finish();
        EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@b.c\n");
    }
}

TEST_F(MailboxForwardsTest, AddressThatFailsKeepsNothingThatWasNotNamed) {
    restoreGroup();
    EXPECT_THROW(helper.registerMailRedirect("example.com", "info", "nobody"), SystemError);
    expectLogged({"idn_email_toascii(nobody) failed: Contains non-LDH characters"});
    expectCarried();
    helper.finish();
    expectDropped();
}

TEST_F(MailboxForwardsTest, DropWithoutMemoryFailsNoSlot) {
    requireExhaustibleMemory();
    // Reading the file again takes a block of its size, which nothing else needs.
    std::string text = "| true\n";
    while (text.size() < 900'000)
        text += "&someone" + std::to_string(text.size()) + "@example.com\n";
    write(text);
    helper.registerMailbox("example.com", "info", false);
    expectChildLogs({NOT_DROPPED + "Cannot allocate memory"}, [&] {
        limitMemory(memoryInUse());
        const Blocks taken = takeAll(128 << 10);
        helper.registerDomain("example.net", false);
    });
    EXPECT_TRUE(exists(MAILNAMES + "/example.net"));
    EXPECT_EQ(contentsOf(DOTQMAIL), text);
}

// --- a mailbox stage that failed

TEST_F(MailboxForwardsTest, WhereTheMailboxFailedForwardsAreAppendedAndNoneIsDropped) {
    std::filesystem::remove(DEFAULT_DELIVERY);
    write("./Maildir/\n&a@b.c\n&d@e.f\n");
    EXPECT_THROW(helper.registerMailbox("example.com", "info", true), SystemError);
    message();
    helper.registerMailRedirect("example.com", "info", "x@y.z");
    helper.registerMailRedirect("example.com", "info", "a@b.c");
    helper.finish();
    EXPECT_EQ(contentsOf(DOTQMAIL), "./Maildir/\n&d@e.f\n&x@y.z\n&a@b.c\n");
}

TEST_F(MailboxForwardsTest, WhereTheHomeCannotBeMadeForwardsAreAppendedAndNoneIsDropped) {
    const std::string maildir = MAILNAMES + "/example.com/info/Maildir";
    std::filesystem::remove_all(maildir);
    writeFile(maildir, "");
    EXPECT_ANY_THROW(helper.registerMailbox("example.com", "info", false));
    streams.err();
    streams.out();
    helper.registerMailRedirect("example.com", "info", "x@y.z");
    helper.registerMailRedirect("example.com", "info", "a@b.c");
    helper.finish();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n&x@y.z\n&a@b.c\n");
}

TEST_F(MailboxForwardsTest, MailboxThatFailsDropsTheForwardsOfTheOneBefore) {
    restoreGroup();
    std::filesystem::remove(DEFAULT_DELIVERY);
    EXPECT_THROW(helper.registerMailbox("example.com", "other", true), SystemError);
    message();
    expectDropped();
}

TEST_F(MailboxForwardsTest, NamedForwardThatCanNeitherBePlacedNorAddedIsNotDropped) {
    restoreGroup();
    std::filesystem::remove_all(LOCKS);
    EXPECT_THROW(helper.registerMailRedirect("example.com", "info", "a@b.c"), SystemError);
    message();
    makeDirectory(LOCKS);
    helper.finish();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n&a@b.c\n");
}

// --- what the file is meanwhile and in the end

TEST_F(MailboxForwardsTest, FileOfAGroupThatIsRightIsNotWritten) {
    const auto before = identity();
    helper.registerMailbox("example.com", "info", false);
    helper.registerMailRedirect("example.com", "info", "a@b.c");
    helper.registerMailRedirect("example.com", "info", "d@e.f");
    helper.finish();
    EXPECT_EQ(identity(), before);
}

TEST_F(MailboxForwardsTest, ForwardsInAnotherOrderAreNeverMissing) {
    const std::vector<std::string> addresses = {"g@h.i", "d@e.f", "a@b.c"};
    write("| true\n" + DELIVERY_LINE + "\n&a@b.c\n&d@e.f\n&g@h.i\n");
    helper.registerMailbox("example.com", "info", true);
    for (const std::string& named : addresses) {
        helper.registerMailRedirect("example.com", "info", named);
        for (const std::string& other : addresses)
            EXPECT_NE(contentsOf(DOTQMAIL).find("\n&" + other + "\n"), std::string::npos);
        EXPECT_TRUE(contentsOf(DOTQMAIL).starts_with("| true\n" + DELIVERY_LINE + "\n"));
    }
    helper.finish();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + DELIVERY_LINE + "\n&g@h.i\n&d@e.f\n&a@b.c\n");
}

TEST_F(MailboxForwardsTest, LineThatIsGivenTwiceStandsWhereItWasNamedLast) {
    for (const std::string old : {"", "&a@b.c\n&d@e.f\n", "&d@e.f\n&a@b.c\n", "&x@y.z\n&a@b.c\n"}) {
        SCOPED_TRACE(old);
        write("| true\n" + old);
        helper.registerMailbox("example.com", "info", false);
        for (const char* const named : {"a@b.c", "d@e.f", "a@B.C"})
            helper.registerMailRedirect("example.com", "info", named);
        helper.finish();
        const std::string end = contentsOf(DOTQMAIL);

        write("| true\n");
        const mail::Mailname mailname("example.com", "info");
        for (const char* const named : {"a@b.c", "d@e.f", "a@B.C"})
            mail::DotQMailManager(mailname).addRedirect(named,
                                                        mail::DotQMailManager::Position::anywhere);
        EXPECT_EQ(end, contentsOf(DOTQMAIL));
    }
}

}  // namespace
}  // namespace corvo::test
