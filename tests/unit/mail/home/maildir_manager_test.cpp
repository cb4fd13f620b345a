#include "mail/home/maildir_manager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mail/home/fs_error.h"
#include "tests/support/acl.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/home/maildir_manager_fixture.h"

namespace {

namespace homes = corvo::test::homes;

bool passes(const char* call) {
    return !homes::letThrough || homes::letThrough(call);
}

template <typename Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int fchown(int fd, uid_t uid, gid_t gid) noexcept {
    static const auto real = original<int(int, uid_t, gid_t)>("fchown");
    return passes("chown") ? real(fd, uid, gid) : -1;
}

extern "C" int fchmod(int fd, mode_t mode) noexcept {
    static const auto real = original<int(int, mode_t)>("fchmod");
    return passes("chmod") ? real(fd, mode) : -1;
}

extern "C" int fstat(int fd, struct stat* result) noexcept {
    static const auto real = original<int(int, struct stat*)>("fstat");
    return passes("stat") ? real(fd, result) : -1;
}

namespace corvo::test::homes {
namespace {

TEST_F(MaildirManagerTest, InstanceIsTheOneOfMaildirPPManager) {
    EXPECT_EQ(&MaildirManager::getInstance(), &MaildirPPManager::getInstance());
}

TEST_F(MaildirManagerTest, EveryGetInstanceLooksTheAccountUp) {
    EXPECT_NO_THROW(MaildirPPManager::getInstance());
    removeUser("popuser");
    try {
        MaildirPPManager::getInstance();
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "user popusernot found");  // sic
    }
}

TEST_F(MaildirManagerTest, GroupIsThatOfTheAccountEntry) {
    removeGroup("popuser");
    createRoot();
    EXPECT_EQ(ownerOf(ROOT), popuser());
}

TEST_F(MaildirManagerTest, PathsAreLowerCased) {
    EXPECT_EQ(manager().getMailnameHome("Example.COM", "Info").native(),
              "/var/qmail/mailnames/example.com/info");
    EXPECT_EQ(manager().getDomainRoot("Example.COM").native(), "/var/qmail/mailnames/example.com");
    EXPECT_EQ(manager().getDomainRelativeRoot("Example.COM").native(), "example.com");
    EXPECT_EQ(manager().getMailnameRelativeHome("Example.COM", "Info").native(),
              "example.com/info");
}

TEST_F(MaildirManagerTest, OnlyAsciiLettersAreLowerCased) {
    EXPECT_EQ(manager()
                  .getDomainRoot("B\xC3\x9C"
                                 "CHER.example")
                  .native(),
              "/var/qmail/mailnames/b\xC3\x9C"
              "cher.example");
}

TEST_F(MaildirManagerTest, RootComesFromTheConfiguration) {
    const ProcessResult result = runForked([] {
        writeFile("/etc/vhc/vhc.conf", "CORVO_MAILNAMES_D /var/lib/Mail/\n");
        std::cout << manager().getMailnameHome("Example.com", "Info").native();
    });
    EXPECT_EQ(result.out, "/var/lib/Mail/example.com/info");
}

TEST_F(MaildirManagerTest, PathsOfOddNamesStayBelowTheRoot) {
    EXPECT_EQ(manager().getDomainRoot("").native(), MAILNAMES + "/");
    EXPECT_EQ(manager().getDomainRoot("/etc").native(), MAILNAMES + "//etc");
    EXPECT_EQ(manager().getMailnameHome("a", "/etc").native(), MAILNAMES + "/a//etc");
    EXPECT_EQ(manager().getMailnameHome("..", "a").native(), MAILNAMES + "/../a");
}

TEST_F(MaildirManagerTest, DomainRootBelongsToPopuserWithMode0750) {
    createRoot();
    EXPECT_EQ(listTree(MAILNAMES), "d 0750 " + popuser() + " example.com\n");
}

TEST_F(MaildirManagerTest, ExistingDomainRootIsTakenOverAndKeepsItsContents) {
    makeDirectory(ROOT);
    writeFile(ROOT + "/info/Maildir/new/1", "mail", 0, 0, 0644);
    const std::string before = fingerprint(ROOT);
    createRoot();
    EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0750 " + popuser());
    EXPECT_EQ(fingerprint(ROOT), before);
}

TEST_F(MaildirManagerTest, SetGroupIdOfTheParentIsNotInherited) {
    ASSERT_EQ(::chmod(MAILNAMES.c_str(), 02755), 0);
    createRoot();
    createHome();
    EXPECT_EQ(modeOf(ROOT), "0750");
    EXPECT_EQ(modeOf(HOME + "/Maildir"), "0700");
}

TEST_F(MaildirManagerTest, HomeIsTheWholeSkeletonWhateverTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        SCOPED_TRACE(mask);
        resetSandbox();
        ::umask(mask);
        createHome();
        EXPECT_EQ(currentUmask(), mask);
        EXPECT_EQ(modeOf(HOME) + " " + ownerOf(HOME), "0700 " + popuser());
        EXPECT_EQ(listTree(HOME), listOfNewHome());
    }
    ::umask(022);
}

TEST_F(MaildirManagerTest, HomeMadeTwiceIsTheSame) {
    createHome();
    const std::string before = fingerprint(MAILNAMES);
    createHome();
    EXPECT_EQ(fingerprint(MAILNAMES), before);
    EXPECT_EQ(listTree(HOME), listOfNewHome());
}

TEST_F(MaildirManagerTest, ExistingDirectoriesAreTakenOverAndNeverEmptied) {
    writeFile(HOME + "/Maildir/new/1.mail", "hello", 0, 0, 0644);
    makeDirectory(HOME + "/Maildir/.Work/cur");
    const ino_t inode = inodeOf(HOME + "/Maildir/new/1.mail");
    createHome();
    EXPECT_EQ(modeOf(HOME + "/Maildir/new") + " " + ownerOf(HOME + "/Maildir/new"),
              "0700 " + popuser());
    EXPECT_EQ(contentsOf(HOME + "/Maildir/new/1.mail"), "hello");
    EXPECT_EQ(inodeOf(HOME + "/Maildir/new/1.mail"), inode);
    EXPECT_EQ(modeOf(HOME + "/Maildir/new/1.mail") + " " + ownerOf(HOME + "/Maildir/new/1.mail"),
              "0644 0:0");
    EXPECT_EQ(modeOf(HOME + "/Maildir/.Work") + " " + ownerOf(HOME + "/Maildir/.Work"), "0755 0:0");
}

TEST_F(MaildirManagerTest, MissingParentsAreMadeForTheOwnerOnly) {
    fs::remove(MAILNAMES);
    createHome();
    EXPECT_EQ(modeOf(MAILNAMES) + " " + ownerOf(MAILNAMES), "0700 0:0");
    EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0700 0:0");
    createRoot();
    EXPECT_EQ(modeOf(MAILNAMES) + " " + ownerOf(MAILNAMES), "0700 0:0");
    EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0750 " + popuser());
}

/// Of what is not popuser's yet, each time before an owner is set.
std::set<std::string> modesBeforeOwners(const std::function<void()>& operation) {
    std::set<std::string> modes;
    letThrough = [&modes](const char* call) {
        if (std::string_view(call) != "chown")
            return true;
        for (const auto& entry : fs::recursive_directory_iterator(MAILNAMES))
            if (ownerOf(entry.path()) != popuser())
                modes.insert(modeOf(entry.path()));
        return true;
    };
    operation();
    letThrough = nullptr;
    return modes;
}

TEST_F(MaildirManagerTest, NobodyElseGetsIntoWhatIsBeingMade) {
    const std::set<std::string> rootsAlone = {"0700"};
    EXPECT_EQ(modesBeforeOwners(createHome), rootsAlone);
    resetSandbox();
    openNewEntriesToAll(MAILNAMES);
    EXPECT_EQ(modesBeforeOwners(createRoot), rootsAlone);
    EXPECT_EQ(modesBeforeOwners(createHome), rootsAlone);
    EXPECT_EQ(modeOf(ROOT), "0750");
    EXPECT_EQ(listTree(HOME), listOfNewHome());
}

TEST_F(MaildirManagerTest, NamesAreLowerCasedOnDisk) {
    manager().createDomainRoot("Example.COM");
    manager().createMailnameHome("EXAMPLE.com", "Info");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"example.com"});
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{"info"});
}

TEST_F(MaildirManagerTest, DomainsOfOtherAlphabetsKeepTheirUtf8Name) {
    manager().createDomainRoot(
        "b\xC3\xBC"
        "cher.example");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"b\xC3\xBC"
                                                           "cher.example"});
}

TEST_F(MaildirManagerTest, CreationLeavesNoDescriptorOpen) {
    (void)manager();
    const int before = openDescriptors();
    createRoot();
    createHome();
    EXPECT_EQ(openDescriptors(), before);
}

const std::vector<std::string> ODD_NAMES = {
    "", ".", "..", "/", "a/b", "/etc", "../outside", "a/", std::string("a\0b", 3)};

TEST_F(MaildirManagerTest, OddNamesFailBeforeAnythingIsTouched) {
    createHome();
    const std::string before = fingerprint("/var/qmail");
    MaildirManager& m = manager();
    for (const std::string& name : ODD_NAMES) {
        SCOPED_TRACE(name);
        const std::function<void()> operations[] = {
            [&] { m.createDomainRoot(name); },
            [&] { m.createMailnameHome(name, "info"); },
            [&] { m.createMailnameHome("example.com", name); },
            [&] { m.renameDomainRoot(name, "b"); },
            [&] { m.renameDomainRoot("example.com", name); },
            [&] { m.renameMailnameHome(name, "info", "b"); },
            [&] { m.renameMailnameHome("example.com", name, "b"); },
            [&] { m.renameMailnameHome("example.com", "info", name); },
            [&] { m.removeDomainRoot(name); },
            [&] { m.removeMailnameHome(name, "info"); },
            [&] { m.removeMailnameHome("example.com", name); },
            [&] { m.backupDomainRoot(name); },
            [&] { m.backupMailnameHome(name, "info"); },
            [&] { m.backupMailnameHome("example.com", name); },
        };
        for (const auto& operation : operations) {
            const Thrown thrown = failureOf(operation);
            EXPECT_EQ(thrown.error, EINVAL) << thrown.text;
            EXPECT_FALSE(thrown.isFSError);
        }
    }
    EXPECT_EQ(fingerprint("/var/qmail"), before);
    EXPECT_EQ(currentUmask(), 022U);
}

TEST_F(MaildirManagerTest, OtherOddNamesAreLegal) {
    for (const std::string name : {"...", " ", "a\nb", "-", "*", "\xFF"}) {
        SCOPED_TRACE(name);
        EXPECT_NO_THROW(manager().createMailnameHome(name, name));
        EXPECT_TRUE(exists(fs::path(MAILNAMES) / name / name / "Maildir/.Trash/cur"));
    }
}

TEST_F(MaildirManagerTest, NameThatIsTooLongIsAFileSystemError) {
    const Thrown thrown = failureOf([] { manager().createDomainRoot(std::string(256, 'a')); });
    EXPECT_EQ(thrown.error, ENAMETOOLONG);
    EXPECT_FALSE(thrown.isFSError);
}

}  // namespace
}  // namespace corvo::test::homes
