#include "mail/delivery/default_delivery.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>

#include "tests/support/capabilities.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string DEFAULT_DELIVERY = "/var/qmail/mailnames/.default_delivery";

class DefaultDeliveryTest : public LoggingTest {
protected:
    /// The line, or "(failed)".
    static std::string line() {
        char* text = nullptr;
        if (get_default_delivery_string(&text) != 0) {
            EXPECT_EQ(text, nullptr);
            return "(failed)";
        }
        std::string copy(text);
        std::free(text);
        return copy;
    }
};

TEST_F(DefaultDeliveryTest, FirstLineIsTheLine) {
    const std::string longLine = "| " + std::string(10000, 'x');
    const struct {
        std::string contents;
        std::string line;
    } cases[] = {
        {"./Maildir/\n", "./Maildir/"},     {"./Maildir/", "./Maildir/"},
        {"| first\n| second\n", "| first"}, {"\n| second\n", ""},
        {longLine + "\nrest\n", longLine},
    };
    for (const auto& [contents, expected] : cases) {
        SCOPED_TRACE(contents);
        writeFile(DEFAULT_DELIVERY, contents);
        EXPECT_EQ(line(), expected);
    }
}

TEST_F(DefaultDeliveryTest, MissingFileIsAFailure) {
    EXPECT_EQ(line(), "(failed)");
    EXPECT_EQ(errno, ENOENT);
    // The message ends its own line, and so does the logger.
    expectLogged(
        {"Unable to get default delivery transport string from " + DEFAULT_DELIVERY + "\n"});
}

TEST_F(DefaultDeliveryTest, OnlyARegularFileWithContentIsUsable) {
    const struct {
        const char* what;
        std::function<void()> make;
        int error;
    } cases[] = {
        {"empty", [] { writeFile(DEFAULT_DELIVERY, ""); }, EINVAL},
        {"directory", [] { makeDirectory(DEFAULT_DELIVERY); }, EINVAL},
        {"pipe", [] { ASSERT_EQ(::mkfifo(DEFAULT_DELIVERY.c_str(), 0644), 0); }, EINVAL},
        {"dangling link", [] { makeLink("/nowhere", DEFAULT_DELIVERY); }, ENOENT},
        {"link of popuser",
         [] {
             writeFile("/var/lib/corvo/line", "| evil\n");
             makeLink("/var/lib/corvo/line", DEFAULT_DELIVERY, POPUSER_UID);
         },
         ELOOP},
    };
    for (const auto& [what, make, error] : cases) {
        SCOPED_TRACE(what);
        resetSandbox();
        make();
        EXPECT_EQ(line(), "(failed)");
        EXPECT_EQ(errno, error);
        expectLogged(
            {"Unable to get default delivery transport string from " + DEFAULT_DELIVERY + "\n"});
    }
}

TEST_F(DefaultDeliveryTest, LineThatIsNoTextOrTooLongCannotBeRead) {
    const struct {
        std::string contents;
        int error;
        std::string reason;
    } cases[] = {
        {std::string("| a\0b\n", 6), EINVAL, "Invalid argument\n"},
        {std::string(100000, '\0'), EFBIG, "File too large\n"},
        {std::string(65537, 'x') + "\n", EFBIG, "File too large\n"},
        {std::string(65537, 'x'), EFBIG, "File too large\n"},
    };
    for (const auto& [contents, error, reason] : cases) {
        SCOPED_TRACE(contents.size());
        writeFile(DEFAULT_DELIVERY, contents);
        EXPECT_EQ(line(), "(failed)");
        EXPECT_EQ(errno, error);
        expectLogged(
            {"Unable to read line from file: /var/qmail/mailnames/.default_delivery: " + reason});
    }
    for (const std::string& end : {std::string(), std::string("\n"), std::string("\nx\0", 3)}) {
        writeFile(DEFAULT_DELIVERY, std::string(65536, 'x') + end);
        EXPECT_EQ(line(), std::string(65536, 'x'));
    }
}

TEST_F(DefaultDeliveryTest, FileThatCannotBeOpenedIsAFailure) {
    writeFile(DEFAULT_DELIVERY, "./Maildir/\n", POPUSER_UID, POPUSER_GID, 0);
    {
        const WithoutCapabilities powerless({CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH});
        EXPECT_EQ(line(), "(failed)");
        EXPECT_EQ(errno, EACCES);
    }
    expectLogged({"Unable to open default delivery config file(" + DEFAULT_DELIVERY +
                  "): Permission denied\n"});
}

TEST_F(DefaultDeliveryTest, HardLinkToAnothersFileIsNotHandedOut) {
    const std::string secrets = MAILNAMES + "/secrets";
    const struct {
        const char* what;
        uid_t owner;
        gid_t group;
        std::string contents;
        std::string line;
    } cases[] = {
        {"root's", 0, 0, "root:secret\n", "(failed)"},
        {"a stranger's", STRANGER_UID, STRANGER_GID, "secret\n", "(failed)"},
        {"root's empty one", 0, 0, "", "(failed)"},
        {"popuser's own", POPUSER_UID, POPUSER_GID, "| own\n", "| own"},
    };
    for (const auto& [what, owner, group, contents, expected] : cases) {
        SCOPED_TRACE(what);
        resetSandbox();
        chownToPopuser(MAILNAMES);
        writeFile(secrets, contents, owner, group, 0600);
        ASSERT_EQ(::link(secrets.c_str(), DEFAULT_DELIVERY.c_str()), 0);
        EXPECT_EQ(line(), expected);
        if (expected != "(failed)")
            continue;
        EXPECT_EQ(errno, EPERM);
        expectLogged({"Unable to open default delivery config file(" + DEFAULT_DELIVERY +
                      "): Operation not permitted\n"});
    }
}

TEST_F(DefaultDeliveryTest, FurtherNamesInAFolderOfRootsDoNotMatter) {
    writeFile(DEFAULT_DELIVERY, "./Maildir/\n", 0, 0, 0600);
    ASSERT_EQ(::link(DEFAULT_DELIVERY.c_str(), "/var/qmail/backup"), 0);
    EXPECT_EQ(line(), "./Maildir/");
}

TEST_F(DefaultDeliveryTest, FolderThatIsNoneHoldsNoUsableFile) {
    ASSERT_EQ(::rmdir(MAILNAMES.c_str()), 0);
    writeFile(MAILNAMES, "no directory");
    EXPECT_EQ(line(), "(failed)");
    EXPECT_EQ(errno, ENOTDIR);
    expectLogged(
        {"Unable to get default delivery transport string from " + DEFAULT_DELIVERY + "\n"});
}

class DefaultDeliveryWithoutMemoryTest : public WithoutMemoryTest {};

TEST_F(DefaultDeliveryWithoutMemoryTest, LineIsAFailure) {
    writeFile(DEFAULT_DELIVERY, "./Maildir/\n");
    const ProcessResult result = runForked([] {
        exhaustMemory();
        char* text = nullptr;
        if (get_default_delivery_string(&text) != -1 || errno != ENOMEM)
            ::_exit(1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "Unable to read line from file: " + DEFAULT_DELIVERY +
                              ": Cannot allocate memory\n\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(DefaultDeliveryTest, LinkOfRootIsFollowed) {
    writeFile("/var/lib/corvo/line", "| linked\n");
    makeLink("/var/lib/corvo/line", DEFAULT_DELIVERY);
    EXPECT_EQ(line(), "| linked");
}

TEST_F(DefaultDeliveryTest, ReadingLeavesNoDescriptorOpen) {
    writeFile(DEFAULT_DELIVERY, "./Maildir/\n");
    const int before = openDescriptors();
    EXPECT_EQ(line(), "./Maildir/");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DefaultDeliveryTest, SettingMakesTheTextTheWholeContent) {
    for (const std::string text : {"./Maildir/\n", "./Maildir/", "| a\n| b\n"}) {
        SCOPED_TRACE(text);
        writeFile(DEFAULT_DELIVERY, "an old line that is longer\nand another\n", 0, 0, 0666);
        EXPECT_EQ(set_default_delivery_string(text.c_str()), 0);
        EXPECT_EQ(contentsOf(DEFAULT_DELIVERY), text);
        EXPECT_EQ(modeOf(DEFAULT_DELIVERY) + " " + ownerOf(DEFAULT_DELIVERY), "0600 " + popuser());
    }
}

TEST_F(DefaultDeliveryTest, SettingCreatesTheFile) {
    EXPECT_EQ(set_default_delivery_string("| new\n"), 0);
    EXPECT_EQ(modeOf(DEFAULT_DELIVERY) + " " + ownerOf(DEFAULT_DELIVERY), "0600 " + popuser());
    EXPECT_EQ(line(), "| new");
}

TEST_F(DefaultDeliveryTest, SettingFailsWhereNoFileCanBe) {
    makeDirectory(DEFAULT_DELIVERY);
    EXPECT_EQ(set_default_delivery_string("x"), -1);
    EXPECT_EQ(errno, EISDIR);
    expectLogged({"Unable to truncate or create file " + DEFAULT_DELIVERY + ": Is a directory"});
}

TEST_F(DefaultDeliveryTest, SettingWithoutPopuserWritesNothing) {
    removeUser("popuser");
    EXPECT_EQ(set_default_delivery_string("| new\n"), -1);
    EXPECT_EQ(message(), "user popuser not found\n");
    EXPECT_EQ(contentsOf(DEFAULT_DELIVERY), "");
}

TEST_F(DefaultDeliveryTest, LinesThatDoNotFitAreRemoved) {
    const SmallDisk disk(MAILNAMES, 1);
    disk.fill();
    EXPECT_EQ(set_default_delivery_string("| new\n"), -1);
    EXPECT_EQ(errno, ENOSPC);
    expectLogged({"Unable to write to '" + DEFAULT_DELIVERY + "': No space left on device"});
    EXPECT_FALSE(exists(DEFAULT_DELIVERY));
}

}  // namespace
}  // namespace corvo::test
