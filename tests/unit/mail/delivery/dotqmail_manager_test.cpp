#include "mail/delivery/dotqmail_manager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>

#include "mail/delivery/delivery_agent.h"
#include "mail/home/maildir_manager.h"
#include "mail/home/mailname.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "utils/system_error.h"

namespace {

/// So many flushes fail.
int failingFlushes = 0;

}  // namespace

extern "C" int fdatasync(int fd) {
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
    if (failingFlushes == 0)
        return real(fd);
    --failingFlushes;
    errno = EIO;
    return -1;
}

namespace corvo::test {
namespace {

using corvo::mail::DotQMailManager;
using corvo::mail::ForwardLines;
using corvo::mail::MaildirManager;
using corvo::mail::Mailname;
using Position = DotQMailManager::Position;

const std::string HOME = MAILNAMES + "/example.com/info";
const std::string DOTQMAIL = HOME + "/.qmail";

class DotQMailManagerTest : public LoggingTest {
protected:
    DotQMailManagerTest() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        installDeliverquota();
        writeFile(MAILNAMES + "/.default_delivery", "./Maildir/\n");
        makeDirectory(HOME);
    }

    /// What the operation threw; what it logged is taken.
    std::string failureOf(const std::function<void()>& operation, int error) {
        try {
            operation();
        } catch (const SystemError& e) {
            EXPECT_EQ(e.code(), error);
            logged = message();
            return e.what();
        }
        return "(nothing was thrown)";
    }

    std::string logged;
    DotQMailManager manager{HOME};
};

TEST_F(DotQMailManagerTest, EditsTheDeliveryFileInTheHome) {
    manager.reset();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
    manager.enableDelivery();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n./Maildir/\n");
    manager.addRedirect("a@example.net", Position::anywhere);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n./Maildir/\n&a@example.net\n");
    manager.disableDelivery();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@example.net\n");
    manager.removeRedirect("a@example.net");
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
}

TEST_F(DotQMailManagerTest, EveryPositionAppends) {
    manager.reset();
    for (const int position : {0, 1, 2})
        manager.addRedirect(std::to_string(position) + "@example.net", Position(position));
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&0@example.net\n&1@example.net\n&2@example.net\n");
}

TEST_F(DotQMailManagerTest, HomeOutsideTheMailNamesRootWillDo) {
    const std::string home = "/var/lib/corvo/home";
    makeDirectory(home);
    DotQMailManager(home).reset();
    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n");
}

TEST_F(DotQMailManagerTest, PathOfTheFileItselfWillDo) {
    DotQMailManager(DOTQMAIL).reset();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
    const std::string elsewhere = "/var/lib/corvo/home/.qmail";
    makeDirectory("/var/lib/corvo/home");
    DotQMailManager(elsewhere).reset();
    EXPECT_EQ(contentsOf(elsewhere), "| true\n");
}

TEST_F(DotQMailManagerTest, MailNameThatIsCalledLikeTheFileHasAHome) {
    const std::string home = MAILNAMES + "/example.com/.qmail";
    makeDirectory(home);
    DotQMailManager(home).reset();
    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n");
    DotQMailManager(home + "/.qmail").enableDelivery();
    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n./Maildir/\n");
}

TEST_F(DotQMailManagerTest, OnlyTheLastNameMakesAPathTheFiles) {
    for (const std::string name : {".qmail.tmp", "x.qmail", "qmail", ".Qmail"}) {
        const std::string home = "/var/lib/corvo/" + name;
        makeDirectory(home);
        DotQMailManager(home).reset();
        EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n");
    }
}

TEST_F(DotQMailManagerTest, FileAtAnotherDepthBelowTheMailNamesRootIsRefused) {
    makeDirectory(HOME + "/Maildir");
    const std::string before = fingerprint("/var/qmail");
    for (const std::string path :
         {"/.qmail", "/example.com/info/Maildir/.qmail", "/example.com/info/../.qmail",
          "/example.com//.qmail", "/example.com/../.qmail"}) {
        SCOPED_TRACE(path);
        DotQMailManager odd(MAILNAMES + path);
        EXPECT_EQ(failureOf([&] { odd.reset(); }, EINVAL),
                  "unable to modify " + MAILNAMES + path + "/.qmail: Invalid argument");
        EXPECT_EQ(logged, "");
    }
    EXPECT_EQ(fingerprint("/var/qmail"), before);
}

TEST_F(DotQMailManagerTest, MailNameThatLooksLikeAnothersFileIsRefused) {
    manager.reset();
    const std::string before = fingerprint(MAILNAMES);
    DotQMailManager odd(Mailname("example.com", "info/.qmail"));
    EXPECT_EQ(failureOf([&] { odd.addRedirect("a@b.c", Position::anywhere); }, EINVAL),
              "unable to modify " + DOTQMAIL + "/.qmail: Invalid argument");
    EXPECT_EQ(fingerprint(MAILNAMES), before);
    DotQMailManager(Mailname("example.com", "info")).enableDelivery();
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n./Maildir/\n");
}

TEST_F(DotQMailManagerTest, FailuresAreSystemErrorsWithPathAndErrno) {
    const std::string missing = MAILNAMES + "/example.com/missing";
    const std::string text = "unable to modify " + missing + "/.qmail: No such file or directory";
    DotQMailManager lost(missing);
    EXPECT_EQ(failureOf([&] { lost.reset(); }, ENOENT), text);
    EXPECT_EQ(logged, "Unable to open '" + missing + "/.qmail': No such file or directory\n");
    EXPECT_EQ(failureOf([&] { lost.enableDelivery(); }, ENOENT), text);
    EXPECT_EQ(failureOf([&] { lost.disableDelivery(); }, ENOENT), text);
    EXPECT_EQ(failureOf([&] { lost.addRedirect("a@b", Position::last); }, ENOENT), text);
    EXPECT_EQ(failureOf([&] { lost.removeRedirect("a@b"); }, ENOENT), text);
}

TEST_F(DotQMailManagerTest, ErrnoIsThatOfTheFailingCall) {
    makeDirectory(DOTQMAIL);
    const std::string text = "unable to modify " + DOTQMAIL + ": ";
    EXPECT_EQ(failureOf([&] { manager.reset(); }, EISDIR), text + "Is a directory");
    EXPECT_EQ(failureOf([&] { manager.addRedirect("a", Position::last); }, EINVAL),
              text + "Invalid argument");
}

TEST_F(DotQMailManagerTest, LinkOfPopuserIsRefused) {
    writeFile("/var/lib/corvo/outside", "kept\n");
    makeLink("/var/lib/corvo/outside", DOTQMAIL, POPUSER_UID);
    EXPECT_EQ(failureOf([&] { manager.reset(); }, ELOOP),
              "unable to modify " + DOTQMAIL + ": Too many levels of symbolic links");
    EXPECT_EQ(contentsOf("/var/lib/corvo/outside"), "kept\n");
}

TEST_F(DotQMailManagerTest, AddressesWithZeroBytesAreRefused) {
    manager.reset();
    const std::string address("a@example.net\0b", 15);
    const std::string text = "unable to modify " + DOTQMAIL + ": Invalid argument";
    EXPECT_EQ(failureOf([&] { manager.addRedirect(address, Position::last); }, EINVAL), text);
    EXPECT_EQ(failureOf([&] { manager.removeRedirect(address); }, EINVAL), text);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
}

TEST_F(DotQMailManagerTest, HomesOfOddNamesAreRefusedAndNothingIsTouched) {
    makeDirectory(HOME + "/Maildir");
    makeDirectory("/var/qmail/info");
    MaildirManager& maildirs = MaildirManager::getInstance();
    const std::string before = fingerprint("/var/qmail");
    const struct {
        std::string domain;
        std::string mailname;
    } cases[] = {
        {"example.com", ""},
        {"", "example.com"},
        {"example.com", "."},
        {"example.com", ".."},
        {"..", "info"},
        {".", "example.com"},
        {"example.com", "info/"},
        {"example.com", "info/Maildir"},
        {"example.com/info", "Maildir"},
        {"example.com", "/var/qmail/info"},
        {"/var/qmail", "info"},
        {"example.com", std::string("info\0x", 6)},
    };
    for (const auto& [domain, mailname] : cases) {
        SCOPED_TRACE(testing::Message() << domain << ' ' << mailname);
        const auto home = maildirs.getMailnameHome(domain, mailname);
        DotQMailManager odd(home);
        EXPECT_NE(failureOf([&] { odd.addRedirect("a@b.c", Position::anywhere); }, EINVAL)
                      .find("unable to modify " + MAILNAMES),
                  std::string::npos);
        EXPECT_EQ(logged, "");
        failureOf([&] { odd.reset(); }, EINVAL);
    }
    EXPECT_EQ(fingerprint("/var/qmail"), before);
}

TEST_F(DotQMailManagerTest, PlacesAForwardDespiteFailuresOfTheMoment) {
    struct Case {
        int failures;
        bool isPlaced;
    };
    for (const auto& [failures, isPlaced] : {Case{2, true}, Case{3, false}}) {
        SCOPED_TRACE(failures);
        writeFile(DOTQMAIL, "| true\n&a@b.c\n");
        ForwardLines unnamed = {"&a@b.c", "&d@e.f"};
        failingFlushes = failures;
        EXPECT_EQ(manager.placeRedirect("d@e.f", unnamed, true), isPlaced);
        EXPECT_EQ(failingFlushes, 0);
        EXPECT_EQ(unnamed, ForwardLines{"&a@b.c"});
        EXPECT_EQ(contentsOf(DOTQMAIL), isPlaced ? "| true\n&d@e.f\n&a@b.c\n" : "| true\n&a@b.c\n");
    }
}

TEST_F(DotQMailManagerTest, AddsAForwardThatIsThereInOneStepDespiteFailuresOfTheMoment) {
    writeFile(DOTQMAIL, "| true\n&a@b.c\n&d@e.f\n");
    failingFlushes = 2;
    manager.addRedirect("a@b.c", Position::anywhere);
    EXPECT_EQ(failingFlushes, 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&d@e.f\n&a@b.c\n");
}

TEST_F(DotQMailManagerTest, NamesAForwardThatItMayNotPlace) {
    writeFile(DOTQMAIL, "| true\n&a@b.c\n");
    ForwardLines unnamed = {"&a@b.c", "&d@e.f"};
    EXPECT_FALSE(manager.placeRedirect("d@e.f", unnamed, false));
    EXPECT_EQ(unnamed, ForwardLines{"&a@b.c"});
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n&a@b.c\n");
}

}  // namespace
}  // namespace corvo::test
