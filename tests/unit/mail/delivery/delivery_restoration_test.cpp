#include "mail/delivery/delivery_restoration.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <optional>
#include <set>
#include <string>

#include "mail/delivery/delivery_agent.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

using corvo::mail::dropForwards;
using corvo::mail::ForwardLines;
using corvo::mail::holdForward;
using corvo::mail::placeForward;
using corvo::mail::restoreDelivery;

const std::string HOME = MAILNAMES + "/example.com/info";
const std::string DOTQMAIL = HOME + "/.qmail";
const std::string LINE = "| /usr/bin/deliverquota ./Maildir\n";
const std::string NO_AGENT = "Unable to detect IMAP/POP3 server type - no LDA found\n";
const std::string NOT_DELIVERING = "Unable to add delivery string to '" + DOTQMAIL + "'\n";
const std::string NO_LINE =
    "Unable to get default delivery transport string from "
    "/var/qmail/mailnames/.default_delivery\n\n";

class DeliveryRestorationTest : public LoggingTest {
protected:
    DeliveryRestorationTest() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        installDeliverquota();
        writeFile(MAILNAMES + "/.default_delivery", LINE);
        makeDirectory(HOME);
    }

    static void removeAgent() { std::filesystem::remove("/usr/bin/deliverquota"); }
    static void removeLine() { std::filesystem::remove(MAILNAMES + "/.default_delivery"); }
    static void removeLocks() { std::filesystem::remove_all("/run/lock/files"); }

    static void write(const std::string& text) {
        writeFile(DOTQMAIL, text, POPUSER_UID, POPUSER_GID, 0600);
    }

    int restore(bool delivers) { return restoreDelivery(DOTQMAIL.c_str(), delivers, carried); }

    // The forwards that were carried over, or "none" where the file was not restored.
    std::string carriedOver() const {
        if (!carried)
            return "none";
        std::string all;
        for (const std::string& line : std::set<std::string>(carried->begin(), carried->end()))
            all += line + " ";
        return all;
    }

    static std::pair<ino_t, long> identity() {
        struct stat seen = {};
        EXPECT_EQ(::stat(DOTQMAIL.c_str(), &seen), 0);
        return {seen.st_ino, seen.st_ctim.tv_nsec};
    }

    std::optional<ForwardLines> carried;
};

TEST_F(DeliveryRestorationTest, MissingFileIsMade) {
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE);
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
    EXPECT_EQ(carriedOver(), "");
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(DeliveryRestorationTest, ForwardsAreCarriedOverAndOtherLinesAreNot) {
    write("&a@b.c\n./Maildir/\n# mine\n&d@e.f\n|prog\n&a@b.c\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE + "&a@b.c\n&d@e.f\n");
    EXPECT_EQ(carriedOver(), "&a@b.c &d@e.f ");
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@b.c\n&d@e.f\n");
}

TEST_F(DeliveryRestorationTest, LastForwardMayLackItsLineEnd) {
    write("| true\n&a@b.c");
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@b.c\n");
}

TEST_F(DeliveryRestorationTest, ForwardsAreBytes) {
    const std::string odd("&a\0b\r\n&\xFF\n", 9);
    write(odd);
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + odd);
}

TEST_F(DeliveryRestorationTest, DeliveryLineThatLooksLikeAForwardIsNone) {
    writeFile(MAILNAMES + "/.default_delivery", "&all@example.net\n");
    write("| true\n&all@example.net\n&a@b.c\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&all@example.net\n&a@b.c\n");
    EXPECT_EQ(carriedOver(), "&a@b.c ");
}

TEST_F(DeliveryRestorationTest, FileThatIsRightIsLeftAlone) {
    write("| true\n" + LINE + "&a@b.c\n");
    const auto before = identity();
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(identity(), before);
    EXPECT_EQ(carriedOver(), "&a@b.c ");
}

TEST_F(DeliveryRestorationTest, EachDifferenceIsPutRight) {
    const std::string right = "| true\n" + LINE + "&a@b.c\n";
    const auto spoil = {
        +[] { ::chmod(DOTQMAIL.c_str(), 0644); },
        +[] { ::chmod(DOTQMAIL.c_str(), 04600); },
        +[] { ::chown(DOTQMAIL.c_str(), 0, POPUSER_GID); },
        +[] { ::chown(DOTQMAIL.c_str(), POPUSER_UID, 0); },
        +[] { writeFile(DOTQMAIL, "| true\n&a@b.c\n" + LINE); },
        +[] { writeFile(DOTQMAIL, "| true\n" + LINE + "&a@b.c"); },
    };
    for (const auto& damage : spoil) {
        write(right);
        damage();
        const auto before = identity();
        EXPECT_EQ(restore(true), 0);
        EXPECT_NE(identity().first, before.first);
        EXPECT_EQ(contentsOf(DOTQMAIL), right);
        EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
    }
}

TEST_F(DeliveryRestorationTest, SecondNamesKeepWhatTheyHave) {
    write("./Maildir/\n");
    std::filesystem::create_hard_link(DOTQMAIL, HOME + "/second");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(HOME + "/second"), "./Maildir/\n");
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE);
}

// --- where the delivery line cannot be had

struct Precondition {
    const char* name;
    void (*remove)();
    std::string report;
};

class DeliveryWithoutTest : public DeliveryRestorationTest,
                            public ::testing::WithParamInterface<int> {
protected:
    static Precondition precondition() {
        switch (GetParam()) {
            case 0:
                return {"agent", removeAgent, NO_AGENT + NOT_DELIVERING};
            case 1:
                return {"line", removeLine, NO_LINE + NOT_DELIVERING};
            default:
                return {"locks", removeLocks, ""};
        }
    }

    void remove() {
        precondition().remove();
        report = precondition().report;
    }

    std::string report;  // of what is missing, but for the locks
    static bool areLocks() { return GetParam() == 2; }
};

TEST_P(DeliveryWithoutTest, FileThatDeliversStaysWithItsForwards) {
    const std::string old = "./Maildir/\n&a@b.c\n# mine\n";
    writeFile(DOTQMAIL, old, 0, 0, 0644);
    remove();
    EXPECT_EQ(restore(true), -1);
    EXPECT_NE(message().find(NOT_DELIVERING), std::string::npos);
    EXPECT_EQ(contentsOf(DOTQMAIL), old);
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
    EXPECT_EQ(carriedOver(), "none");
}

TEST_P(DeliveryWithoutTest, FileThatOnlyForwardsGoesOnForwarding) {
    write("# mine\n&a@b.c\n");
    remove();
    EXPECT_EQ(restore(true), -1);
    EXPECT_NE(message().find(NOT_DELIVERING), std::string::npos);
    EXPECT_EQ(contentsOf(DOTQMAIL), areLocks() ? "# mine\n&a@b.c\n" : "| true\n&a@b.c\n");
    EXPECT_EQ(carriedOver(), areLocks() ? "none" : "&a@b.c ");
}

TEST_P(DeliveryWithoutTest, FileThatDoesNeitherIsReset) {
    write("# mine\n");
    remove();
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
    EXPECT_NE(message().find(NOT_DELIVERING), std::string::npos);
    EXPECT_EQ(carriedOver(), "none");
}

TEST_P(DeliveryWithoutTest, FailureIsToldOnceAsEver) {
    const std::string missing = "No such file or directory";
    write("./Maildir/\n");
    remove();
    errno = 0;
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(errno, ENOENT);
    const std::string kept = message();
    if (!areLocks()) {
        EXPECT_EQ(kept, report);
    }
    std::filesystem::remove(DOTQMAIL);  // reset as ever
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(message(), kept);
}

INSTANTIATE_TEST_SUITE_P(
    Precondition, DeliveryWithoutTest, ::testing::Values(0, 1, 2), [](const auto& given) {
        return std::string(given.param == 0 ? "Agent" : given.param == 1 ? "Line" : "Locks");
    });

TEST_F(DeliveryRestorationTest, FileThatDeliversByALineOfItsOwnIsKnownWithoutAgentAndLocks) {
    writeFile(MAILNAMES + "/.default_delivery", "| own ./Maildir\n");
    for (void (*remove)() : {removeAgent, removeLocks}) {
        write("| own ./Maildir\n&a@b.c\n");
        remove();
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        EXPECT_EQ(restore(true), -1);
        EXPECT_EQ(contentsOf(DOTQMAIL), "| own ./Maildir\n&a@b.c\n");
        (void)message();
    }
}

TEST_F(DeliveryRestorationTest, LineThatMayBeTheDefaultOneDeliversWhereNobodyCanTell) {
    const auto lose = {
        +[] { removeLine(); },
        +[] { writeFile(MAILNAMES + "/.default_delivery", ""); },
        +[] { writeFile(MAILNAMES + "/.default_delivery", std::string(65537, 'x')); },
    };
    for (const auto& loseLine : lose)
        for (const std::string line : {"| own ./Maildir", "/var/own/", "./own"}) {
            const std::string old = "| true\n" + line + "\n&a@b.c\n";
            write(old);
            loseLine();
            EXPECT_EQ(restore(true), -1);
            EXPECT_EQ(contentsOf(DOTQMAIL), old);
            EXPECT_NE(message().find(NOT_DELIVERING), std::string::npos);
        }
}

TEST_F(DeliveryRestorationTest, NothingElseMayBeTheDefaultLine) {
    removeLine();
    for (const std::string line : {"| true", "# mine", "", "you@b.c"}) {
        write(line + "\n");
        EXPECT_EQ(restore(true), -1);
        EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
    }
    (void)message();
    writeFile(MAILNAMES + "/.default_delivery", LINE);
    write("| own ./Maildir\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE);
}

TEST_F(DeliveryRestorationTest, EmptyDefaultLineTakesNobodysPlace) {
    writeFile(MAILNAMES + "/.default_delivery", "\n" + LINE);
    for (const std::string& old : {"| true\n" + LINE, std::string("| own ./Maildir\n&a@b.c\n")}) {
        write(old);
        EXPECT_EQ(restore(true), 0);
        EXPECT_EQ(contentsOf(DOTQMAIL), old);
    }
    write("# mine\n&a@b.c\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n\n&a@b.c\n");
    write("# mine\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n\n");
    EXPECT_EQ(message(), "");
}

TEST_F(DeliveryRestorationTest, FailuresAreToldAlsoWhereTheFileIsRight) {
    write("| true\n" + LINE);
    const auto before = identity();
    removeLine();
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(message(), NO_LINE + NOT_DELIVERING);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE);
    EXPECT_EQ(identity().first, before.first);
}

TEST_F(DeliveryRestorationTest, ForwardsStayWithoutAWordWhereAResetTakesNoLock) {
    write("&a@b.c\n");
    removeLocks();
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "&a@b.c\n");
    EXPECT_EQ(carriedOver(), "none");
    write("./Maildir/\n");
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
}

// --- where the file cannot be replaced

// In the words of the steps that a mailbox's file would have failed at, behind its reset.
const std::string NOT_REPLACED =
    "Unable to close file " + DOTQMAIL + ".tmp: Input/output error\n\nSystem error 5: " +
    "Input/output error\nUnable to remove old delivery strings from '" + DOTQMAIL + "'\n" +
    NOT_DELIVERING;

class UnreplaceableTest : public DeliveryRestorationTest {
protected:
    // What a restoration prints and how it ends while a system call fails.
    std::string outcome(long call, int error, bool delivers) {
        const ProcessResult result = runForked([&] {
            failSystemCall(call, error);
            const int status = restore(delivers);
            std::cout << status << " " << (status != 0 ? errno : 0) << " " << carriedOver();
        });
        return result.out;
    }
};

TEST_F(UnreplaceableTest, FileThatDeliversOrForwardsStays) {
    for (const std::string old : {"./Maildir/\n", "&a@b.c\n"}) {
        for (const long call : {SYS_fdatasync, SYS_fchown, SYS_rename, SYS_renameat2}) {
            SCOPED_TRACE(old + std::to_string(call));
            write(old);
            const std::string end = outcome(call, EIO, true);
            if (end.starts_with("0 "))
                continue;  // a call that is not made here
            EXPECT_EQ(end, NOT_REPLACED + "-1 5 none");
            EXPECT_EQ(contentsOf(DOTQMAIL), old);
            EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
        }
    }
}

TEST_F(UnreplaceableTest, FlushThatFailsIsAWriteThatFails) {
    write("./Maildir/\n");
    EXPECT_EQ(outcome(SYS_fdatasync, EIO, true), NOT_REPLACED + "-1 5 none");
    EXPECT_EQ(outcome(SYS_fdatasync, EINVAL, true), "0 0 ");
}

TEST_F(UnreplaceableTest, NewFileThatCannotBeOpenedIsNamed) {
    write("./Maildir/\n");
    makeDirectory(DOTQMAIL + ".tmp");
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(errno, EISDIR);
    const std::string both =
        "Unable to remove old delivery strings from '" + DOTQMAIL + "'\n" + NOT_DELIVERING;
    EXPECT_EQ(streams.err(), "Unable to open file " + DOTQMAIL + ".tmp: Is a directory\n" + both);
    EXPECT_EQ(streams.out(), both);
    EXPECT_EQ(contentsOf(DOTQMAIL), "./Maildir/\n");
}

TEST_F(UnreplaceableTest, FileThatOnlyForwardsIsToldAsOneThatIsReset) {
    write("# mine\n&a@b.c\n");
    EXPECT_EQ(outcome(SYS_fdatasync, EIO, false),
              "Unable to write to '" + DOTQMAIL + "': Input/output error\n-1 5 none");
    EXPECT_EQ(contentsOf(DOTQMAIL), "# mine\n&a@b.c\n");
}

TEST_F(UnreplaceableTest, ForwardThatStandsIsHeldWhereItStands) {
    write("&a@b.c\n&d@e.f\n");
    makeDirectory(DOTQMAIL + ".tmp");
    EXPECT_TRUE(holdForward(DOTQMAIL.c_str(), "&a@b.c"));
    EXPECT_FALSE(holdForward(DOTQMAIL.c_str(), "&new@b.c"));
    EXPECT_EQ(contentsOf(DOTQMAIL), "&a@b.c\n&d@e.f\n");
    std::filesystem::remove(DOTQMAIL + ".tmp");
    EXPECT_TRUE(holdForward(DOTQMAIL.c_str(), "&a@b.c"));
    EXPECT_EQ(contentsOf(DOTQMAIL), "&d@e.f\n&a@b.c\n");
    removeLocks();
    EXPECT_FALSE(holdForward(DOTQMAIL.c_str(), "&a@b.c"));
}

TEST_F(UnreplaceableTest, FileThatDoesNeitherIsTreatedAsEver) {
    write("# mine\n");
    EXPECT_EQ(outcome(SYS_fdatasync, EIO, true),
              "Unable to write to '" + DOTQMAIL + "': Input/output error\n-1 5 none");
    EXPECT_FALSE(exists(DOTQMAIL));
}

TEST_F(DeliveryRestorationTest, WantOfDescriptorsTakesNoLineAway) {
    constexpr rlim_t ENOUGH = 12;
    for (const bool delivers : {false, true})
        for (rlim_t free = 0; free <= ENOUGH; ++free) {
            SCOPED_TRACE(free);
            const std::string old = "| true\n" + (delivers ? LINE : "") + "&a@b.c\n";
            write(old);
            const ProcessResult result = runForked([&] {
                const int next = ::dup(STDIN_FILENO);
                ::close(next);
                const rlimit few{static_cast<rlim_t>(next) + free, ENOUGH + 1024};
                ::setrlimit(RLIMIT_NOFILE, &few);
                ::_exit(restore(delivers) == 0 ? 0 : 1);
            });
            EXPECT_EQ(contentsOf(DOTQMAIL), old) << result.out;
            EXPECT_TRUE(result.status == 1 || free > 1) << result.status;
            EXPECT_TRUE(result.status == 0 || free < ENOUGH) << result.out;
        }
}

TEST_F(DeliveryRestorationTest, FileThatCannotBeReadIsReset) {
    write(std::string(1 << 20, '#') + "\n&a@b.c\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE);
    EXPECT_EQ(carriedOver(), "none");
    write(std::string((1 << 20) - 8, '#') + "\n&a@b.c\n");
    EXPECT_EQ(restore(true), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n" + LINE + "&a@b.c\n");
}

TEST_F(DeliveryRestorationTest, SomethingElseInItsPlaceFailsAsEver) {
    ASSERT_EQ(::mkfifo(DOTQMAIL.c_str(), 0600), 0);
    EXPECT_EQ(restore(true), -1);
    EXPECT_EQ(message(), "Unable to open '" + DOTQMAIL + "': Invalid argument\n");
}

// --- forwards that are named and dropped

class PlacedForwardsTest : public DeliveryRestorationTest {
protected:
    PlacedForwardsTest() {
        write("| true\n&1@b.c\n&2@b.c\n&3@b.c\n");
        EXPECT_EQ(restore(false), 0);
    }

    void name(const std::string& line) {
        carried->erase(line);
        EXPECT_TRUE(placeForward(DOTQMAIL.c_str(), line, *carried));
    }

    static std::string forwards() { return contentsOf(DOTQMAIL).substr(7); }
};

TEST_F(PlacedForwardsTest, InTheSameOrderTheFileIsNotWritten) {
    const auto before = identity();
    for (const char* line : {"&1@b.c", "&2@b.c", "&3@b.c"})
        name(line);
    EXPECT_EQ(identity(), before);
}

TEST_F(PlacedForwardsTest, InAnotherOrderNoneIsEverMissing) {
    name("&3@b.c");
    EXPECT_EQ(forwards(), "&3@b.c\n&1@b.c\n&2@b.c\n");
    name("&new@b.c");
    EXPECT_EQ(forwards(), "&3@b.c\n&new@b.c\n&1@b.c\n&2@b.c\n");
    name("&2@b.c");
    EXPECT_EQ(forwards(), "&3@b.c\n&new@b.c\n&2@b.c\n&1@b.c\n");
    EXPECT_TRUE(dropForwards(DOTQMAIL.c_str(), *carried));
    EXPECT_EQ(forwards(), "&3@b.c\n&new@b.c\n&2@b.c\n");
}

TEST_F(PlacedForwardsTest, OneThatIsNamedTwiceStandsWhereItWasNamedLast) {
    for (const char* line : {"&1@b.c", "&2@b.c", "&1@b.c"})
        name(line);
    EXPECT_EQ(forwards(), "&2@b.c\n&1@b.c\n&3@b.c\n");
}

TEST_F(PlacedForwardsTest, DroppingRemovesOnlyWhatIsToGo) {
    write("| true\n# mine\n&1@b.c\n&late@b.c\n&2@b.c\n");
    EXPECT_TRUE(dropForwards(DOTQMAIL.c_str(), {"&1@b.c", "&2@b.c", "&3@b.c"}));
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n# mine\n&late@b.c\n");
}

TEST_F(PlacedForwardsTest, DroppingKeepsTheLastOfForwardsThatStandTwice) {
    write("| true\n&1@b.c\n&2@b.c\n# mine\n&1@b.c\n# mine\n&3@b.c\n");
    EXPECT_TRUE(dropForwards(DOTQMAIL.c_str(), {"&3@b.c"}));
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&2@b.c\n# mine\n&1@b.c\n# mine\n");
}

TEST_F(PlacedForwardsTest, DroppingMakesNoFile) {
    std::filesystem::remove(DOTQMAIL);
    EXPECT_TRUE(dropForwards(DOTQMAIL.c_str(), {"&1@b.c"}));
    EXPECT_FALSE(exists(DOTQMAIL));
}

TEST_F(PlacedForwardsTest, WithoutTheLockNothingChanges) {
    const std::string before = contentsOf(DOTQMAIL);
    removeLocks();
    EXPECT_FALSE(placeForward(DOTQMAIL.c_str(), "&x@y.z", {}));
    errno = 0;
    EXPECT_FALSE(dropForwards(DOTQMAIL.c_str(), {"&1@b.c"}));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(contentsOf(DOTQMAIL), before);
}

}  // namespace
}  // namespace corvo::test
