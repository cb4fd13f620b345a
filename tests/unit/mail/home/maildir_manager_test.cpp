#include "mail/home/maildir_manager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "tests/support/capabilities.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"

namespace {

using namespace corvo::test;
namespace fs = std::filesystem;

// What comes before the C library's calls while a test wants it: true lets the call through, false
// fails it with the errno that was set.
std::function<bool(const char*)> letThrough;

bool passes(const char* call) {
    return !letThrough || letThrough(call);
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

namespace {

using corvo::mail::FSError;
using corvo::mail::MaildirManager;
using corvo::mail::MaildirPPManager;

const std::string ROOT = MAILNAMES + "/example.com";
const std::string HOME = ROOT + "/info";
const std::string OUTSIDE = "/var/lib/corvo/outside";

// What a home is made of, in the order of creation.
const std::vector<std::string> SKELETON = {
    "Maildir",         "Maildir/tmp",         "Maildir/new",         "Maildir/cur",
    "Maildir/.Spam",   "Maildir/.Spam/tmp",   "Maildir/.Spam/new",   "Maildir/.Spam/cur",
    "Maildir/.Sent",   "Maildir/.Sent/tmp",   "Maildir/.Sent/new",   "Maildir/.Sent/cur",
    "Maildir/.Drafts", "Maildir/.Drafts/tmp", "Maildir/.Drafts/new", "Maildir/.Drafts/cur",
    "Maildir/.Trash",  "Maildir/.Trash/tmp",  "Maildir/.Trash/new",  "Maildir/.Trash/cur",
    "@attachments"};

MaildirManager& manager() {
    return MaildirManager::getInstance();
}

/// What an operation threw, as far as it is a file system's error.
struct Thrown {
    int error = 0;
    bool isFSError = false;
    fs::path path1;
    fs::path path2;
    std::string text;
};

Thrown failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const fs::filesystem_error& e) {
        return {e.code().value(), dynamic_cast<const FSError*>(&e) != nullptr, e.path1(), e.path2(),
                e.what()};
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

void createHome() {
    manager().createMailnameHome("example.com", "info");
}

void createRoot() {
    manager().createDomainRoot("example.com");
}

class MaildirManagerTest : public SandboxTest {
protected:
    MaildirManagerTest() { writeFile(OUTSIDE + "/file", "kept\n"); }
};

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

std::string listOfNewHome() {
    std::vector<std::string> sorted = SKELETON;
    std::sort(sorted.begin(), sorted.end());
    std::string list;
    for (const std::string& entry : sorted)
        list += "d 0700 " + popuser() + " " + entry + "\n";
    return list;
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

TEST_F(MaildirManagerTest, FileInPlaceOfTheDomainRootIsAFileSystemError) {
    writeFile(ROOT, "in the way");
    const Thrown thrown = failureOf(createRoot);
    EXPECT_EQ(thrown.error, ENOTDIR);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot create directories: Not a directory [" + ROOT + "]");
    EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0644 0:0");
}

TEST_F(MaildirManagerTest, FileInPlaceOfAnEntryStopsThereAndKeepsWhatWasMade) {
    for (std::size_t i = 0; i < SKELETON.size(); ++i) {
        SCOPED_TRACE(SKELETON[i]);
        resetSandbox();
        const std::string blocked = HOME + "/" + SKELETON[i];
        writeFile(blocked, "in the way");
        const int descriptors = openDescriptors();
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, EEXIST);
        EXPECT_EQ(thrown.path1, blocked);
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_EQ(contentsOf(blocked), "in the way");
        EXPECT_EQ(ownerOf(blocked), "0:0");
        for (std::size_t made = 0; made < i; ++made)
            EXPECT_EQ(ownerOf(HOME + "/" + SKELETON[made]), popuser()) << SKELETON[made];
        for (std::size_t later = i + 1; later < SKELETON.size(); ++later)
            EXPECT_FALSE(exists(HOME + "/" + SKELETON[later])) << SKELETON[later];
        EXPECT_EQ(currentUmask(), 022U);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(MaildirManagerTest, PipeInPlaceOfAnEntryDoesNotBlock) {
    makeDirectory(HOME + "/Maildir");
    ASSERT_EQ(::mkfifo((HOME + "/Maildir/new").c_str(), 0600), 0);
    const Thrown thrown = failureOf(createHome);
    EXPECT_EQ(thrown.error, EEXIST);
    EXPECT_EQ(thrown.path1, HOME + "/Maildir/new");
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot create directory: File exists [" + HOME + "/Maildir/new]");
}

TEST_F(MaildirManagerTest, LinkOfRootInPlaceOfAnEntryMustLeadToADirectory) {
    const struct {
        const char* target;
        int error;
    } cases[] = {{"/nowhere", EEXIST}, {"/etc/passwd", EEXIST}, {"new", ELOOP}};
    for (const auto& [target, error] : cases) {
        SCOPED_TRACE(target);
        resetSandbox();
        makeLink(target, HOME + "/Maildir/new");
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, error);
        EXPECT_EQ(thrown.path1, HOME + "/Maildir/new");
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_FALSE(exists("/nowhere"));
        EXPECT_EQ(ownerOf("/etc/passwd"), "0:0");
    }
}

TEST_F(MaildirManagerTest, OwnerThatCannotBeSetIsAnFSErrorWithItsPath) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/.Sent/new", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        makeDirectory(HOME + entry);
        const ReadOnlyDisk disk(HOME + entry);
        const int descriptors = openDescriptors();
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, EROFS);
        EXPECT_TRUE(thrown.isFSError);
        EXPECT_EQ(thrown.path1, HOME + entry);
        EXPECT_EQ(thrown.text.find("filesystem error: chown: Read-only file system ["), 0U);
        EXPECT_EQ(currentUmask(), 022U);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(MaildirManagerTest, DirectoryThatCannotBeMadeIsAFileSystemError) {
    const ReadOnlyDisk disk(MAILNAMES);
    const Thrown thrown = failureOf(createRoot);
    EXPECT_EQ(thrown.error, EROFS);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(currentUmask(), 022U);
}

TEST_F(MaildirManagerTest, EntryThatCannotBeMadeIsAFileSystemError) {
    const SmallDisk disk(MAILNAMES, 0, 8);
    const Thrown thrown = failureOf(createHome);
    EXPECT_EQ(thrown.error, ENOSPC);
    EXPECT_FALSE(thrown.isFSError);
    // The file system's root, the domain, the home and five entries.
    EXPECT_EQ(thrown.path1, HOME + "/" + SKELETON[5]);
    EXPECT_EQ(ownerOf(HOME + "/" + SKELETON[4]), popuser());
    EXPECT_EQ(currentUmask(), 022U);
}

TEST_F(MaildirManagerTest, ModeThatCannotBeSetIsAnFSErrorWithItsPath) {
    const Thrown thrown = failureOf([] {
        const WithoutCapabilities powerless({CAP_FOWNER});
        createRoot();
    });
    EXPECT_EQ(thrown.error, EPERM);
    EXPECT_TRUE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.text, "filesystem error: chmod: Operation not permitted [" + ROOT + "]");
    EXPECT_EQ(ownerOf(ROOT), popuser());
    EXPECT_EQ(currentUmask(), 022U);
}

/// While it lives, the first calls of this name are interrupted by a signal.
class Interrupted {
public:
    Interrupted(std::string call, int times) {
        letThrough = [this, call = std::move(call), times](const char* called) {
            if (call != called || count_ == times)
                return true;
            ++count_;
            errno = EINTR;
            return false;
        };
    }
    ~Interrupted() { letThrough = nullptr; }
    Interrupted(const Interrupted&) = delete;
    Interrupted& operator=(const Interrupted&) = delete;

    int count() const { return count_; }

private:
    int count_ = 0;
};

TEST_F(MaildirManagerTest, InterruptedOwnersAndModesAreSetAgain) {
    for (const std::string call : {"chown", "chmod"}) {
        SCOPED_TRACE(call);
        resetSandbox();
        const Interrupted signals(call, 5);
        createRoot();
        createHome();
        EXPECT_EQ(signals.count(), 5);
        EXPECT_EQ(modeOf(ROOT) + " " + ownerOf(ROOT), "0750 " + popuser());
        EXPECT_EQ(listTree(HOME), listOfNewHome());
    }
}

TEST_F(MaildirManagerTest, InterruptedLookBeforeABackupIsRepeated) {
    createRoot();
    const std::string saved = "example.com.CorvoSaved." + std::to_string(inodeOf(ROOT));
    const Interrupted signals("stat", 3);
    manager().backupDomainRoot("example.com");
    EXPECT_EQ(signals.count(), 3);
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{saved});
}

TEST_F(MaildirManagerTest, LinkThatTakesTurnsWithADirectoryLeadsNoOwnerOut) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        writeFile(OUTSIDE + "/Maildir/cur/file", "kept\n");
        createHome();
        const std::string link = ROOT + "/link";
        makeLink(OUTSIDE, link, POPUSER_UID);
        const std::string before = fingerprint("/var/lib/corvo");
        const Racer swapping([&] { exchange(HOME + entry, link); });
        Outcomes seen;
        while (seen.wantsMore()) {
            try {
                createHome();
                seen.note(true);
            } catch (const fs::filesystem_error& e) {
                // The others when the link came between the look at a directory and its opening.
                const int error = e.code().value();
                EXPECT_TRUE(error == ELOOP || error == ENOTDIR || error == EEXIST) << e.what();
                seen.note(false);
            }
        }
        EXPECT_TRUE(seen.both()) << seen;
        EXPECT_EQ(fingerprint("/var/lib/corvo"), before);
    }
}

TEST_F(MaildirManagerTest, LinksOfPopuserAreRefusedAtEachLevel) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur", "/Maildir/.Spam",
                                    "/Maildir/.Spam/cur", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        writeFile(OUTSIDE + "/file", "kept\n");
        makeLink(OUTSIDE, HOME + entry, POPUSER_UID);
        const std::string owner = ownerOf(OUTSIDE) + modeOf(OUTSIDE) + fingerprint(OUTSIDE);
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, ELOOP);
        EXPECT_EQ(thrown.path1, HOME + entry);
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_EQ(ownerOf(OUTSIDE) + modeOf(OUTSIDE) + fingerprint(OUTSIDE), owner);
    }
}

TEST_F(MaildirManagerTest, LinkOfPopuserInPlaceOfTheDomainRootIsRefused) {
    makeLink(OUTSIDE, ROOT, POPUSER_UID);
    EXPECT_EQ(failureOf(createRoot).error, ELOOP);
    EXPECT_EQ(failureOf(createHome).error, ELOOP);
    EXPECT_EQ(namesIn(OUTSIDE), std::vector<std::string>{"file"});
    EXPECT_EQ(ownerOf(OUTSIDE), "0:0");
}

TEST_F(MaildirManagerTest, LinksOfRootAreFollowedAtEachLevel) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur", "/Maildir/.Spam",
                                    "/Maildir/.Spam/cur", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        makeDirectory(OUTSIDE);
        makeLink(OUTSIDE, HOME + entry);
        createHome();
        EXPECT_EQ(modeOf(OUTSIDE) + " " + ownerOf(OUTSIDE), "0700 " + popuser());
        EXPECT_EQ(ownerOf(HOME + entry), "0:0") << "the link itself";
        for (const std::string& made : SKELETON)
            EXPECT_TRUE(fs::is_directory(fs::path(HOME) / made)) << made;
    }
}

TEST_F(MaildirManagerTest, LinkOfRootInPlaceOfTheDomainRootIsFollowed) {
    makeLink(OUTSIDE, ROOT);
    createRoot();
    createHome();
    EXPECT_EQ(modeOf(OUTSIDE) + " " + ownerOf(OUTSIDE), "0750 " + popuser());
    EXPECT_EQ(listTree(OUTSIDE + "/info"), listOfNewHome());
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

TEST_F(MaildirManagerTest, RenamedDomainRootKeepsAllThatIsInIt) {
    createHome();
    const std::string before = fingerprint(ROOT);
    manager().renameDomainRoot("Example.com", "Example.NET");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"example.net"});
    EXPECT_EQ(fingerprint(MAILNAMES + "/example.net"), before);
}

TEST_F(MaildirManagerTest, RenamedHomeKeepsAllThatIsInIt) {
    createHome();
    manager().renameMailnameHome("example.com", "INFO", "Sales");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{"sales"});
    EXPECT_EQ(listTree(ROOT + "/sales"), listOfNewHome());
}

TEST_F(MaildirManagerTest, RenamingWhatIsMissingIsAFileSystemErrorWithBothPaths) {
    const Thrown thrown = failureOf([] { manager().renameDomainRoot("example.com", "b"); });
    EXPECT_EQ(thrown.error, ENOENT);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, MAILNAMES + "/b");
    EXPECT_EQ(thrown.text, "filesystem error: cannot rename: No such file or directory [" + ROOT +
                               "] [" + MAILNAMES + "/b]");
}

TEST_F(MaildirManagerTest, RenamingOntoAFullDirectoryFailsAndChangesNothing) {
    createHome();
    writeFile(ROOT + "/sales/file", "kept");
    const std::string before = fingerprint(MAILNAMES);
    const Thrown thrown =
        failureOf([] { manager().renameMailnameHome("example.com", "info", "sales"); });
    EXPECT_EQ(thrown.error, ENOTEMPTY);
    EXPECT_EQ(fingerprint(MAILNAMES), before);
}

TEST_F(MaildirManagerTest, BackupOfADomainRootIsNamedAfterItsInode) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    const std::string before = fingerprint(ROOT);
    manager().backupDomainRoot("Example.COM");
    EXPECT_FALSE(exists(ROOT));
    EXPECT_EQ(fingerprint(saved), before);
}

TEST_F(MaildirManagerTest, BackupOfAHomeIsNamedAfterItsInode) {
    createHome();
    const std::string saved = "info.CorvoSaved." + std::to_string(inodeOf(HOME));
    manager().backupMailnameHome("example.com", "info");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{saved});
}

TEST_F(MaildirManagerTest, BackupOfWhatIsNotThereDoesNothing) {
    EXPECT_NO_THROW(manager().backupDomainRoot("example.com"));
    EXPECT_NO_THROW(manager().backupMailnameHome("example.com", "info"));
    EXPECT_EQ(listTree(MAILNAMES), "");
}

TEST_F(MaildirManagerTest, BackupBelowAFileDoesNothing) {
    writeFile(ROOT, "no directory");
    EXPECT_NO_THROW(manager().backupMailnameHome("example.com", "info"));
    EXPECT_EQ(contentsOf(ROOT), "no directory");
}

TEST_F(MaildirManagerTest, BackupOfWhatCannotBeLookedAtIsAnFSErrorWithAnEmptySecondPath) {
    makeLink(OUTSIDE, ROOT, POPUSER_UID);
    const Thrown thrown = failureOf([] { manager().backupDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, ELOOP);
    EXPECT_TRUE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, "");
    EXPECT_EQ(thrown.text.find("filesystem error: rename: Too many levels of symbolic links"), 0U);
}

TEST_F(MaildirManagerTest, BackupThatCannotBeRenamedIsAFileSystemError) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    writeFile(saved + "/file", "in the way");
    const Thrown thrown = failureOf([] { manager().backupDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, ENOTEMPTY);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, ROOT);
    EXPECT_EQ(thrown.path2, saved);
    EXPECT_EQ(listTree(HOME), listOfNewHome());
}

TEST_F(MaildirManagerTest, RemovedDomainRootLeavesNothing) {
    createHome();
    writeFile(HOME + "/Maildir/new/1", "mail");
    manager().createDomainRoot("example.net");
    manager().removeDomainRoot("Example.COM");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{"example.net"});
}

TEST_F(MaildirManagerTest, RemovedHomeLeavesTheOthers) {
    createHome();
    manager().createMailnameHome("example.com", "sales");
    writeFile(HOME + "/Maildir/new/1", "mail");
    manager().removeMailnameHome("example.com", "INFO");
    EXPECT_EQ(namesIn(ROOT), std::vector<std::string>{"sales"});
    EXPECT_EQ(listTree(ROOT + "/sales"), listOfNewHome());
}

TEST_F(MaildirManagerTest, RemovingWhatIsNotThereDoesNothing) {
    EXPECT_NO_THROW(manager().removeDomainRoot("example.com"));
    EXPECT_NO_THROW(manager().removeMailnameHome("example.com", "info"));
    EXPECT_EQ(listTree(MAILNAMES), "");
}

TEST_F(MaildirManagerTest, RemovalFollowsNoLinkOutOfTheTree) {
    createHome();
    makeLink(OUTSIDE, HOME + "/Maildir/new/link", POPUSER_UID);
    makeLink(OUTSIDE, HOME + "/Maildir/.Outside");
    makeLink(OUTSIDE + "/file", HOME + "/file");
    const std::string before = fingerprint(OUTSIDE);
    manager().removeMailnameHome("example.com", "info");
    EXPECT_FALSE(exists(HOME));
    EXPECT_EQ(fingerprint(OUTSIDE), before);
}

TEST_F(MaildirManagerTest, RemovalOfALinkedDomainRootRemovesTheLinkOnly) {
    for (const uid_t owner : {uid_t{0}, POPUSER_UID}) {
        makeLink(OUTSIDE, ROOT, owner);
        manager().removeDomainRoot("example.com");
        EXPECT_EQ(listTree(MAILNAMES), "") << owner;
        EXPECT_EQ(contentsOf(OUTSIDE + "/file"), "kept\n");
    }
}

TEST_F(MaildirManagerTest, NameIsFreeEvenWhenTheRemovalStops) {
    createHome();
    const std::string saved = ROOT + ".CorvoSaved." + std::to_string(inodeOf(ROOT));
    // What is mounted cannot be removed.
    const SmallDisk disk(HOME, 0);
    const Thrown thrown = failureOf([] { manager().removeDomainRoot("example.com"); });
    EXPECT_EQ(thrown.error, EBUSY);
    EXPECT_FALSE(thrown.isFSError);
    EXPECT_EQ(thrown.path1, saved);
    EXPECT_EQ(thrown.text,
              "filesystem error: cannot remove all: Device or resource busy [" + saved + "]");
    EXPECT_EQ(namesIn(MAILNAMES), std::vector<std::string>{fs::path(saved).filename().string()});
}

TEST_F(MaildirManagerTest, RemovalLeavesNoDescriptorOpen) {
    createHome();
    const int before = openDescriptors();
    manager().removeDomainRoot("example.com");
    EXPECT_EQ(openDescriptors(), before);
}

TEST(FSErrorTest, CarriesPathsAndErrnoInTheSystemCategory) {
    const FSError one("chown", "/a", EPERM);
    EXPECT_EQ(one.code(), std::error_code(EPERM, std::system_category()));
    EXPECT_EQ(one.path1(), "/a");
    EXPECT_EQ(one.path2(), "");
    const FSError two("rename", "/a", "/b", ENOENT);
    EXPECT_EQ(two.code(), std::error_code(ENOENT, std::system_category()));
    EXPECT_EQ(two.path2(), "/b");
    EXPECT_STREQ(two.what(), "filesystem error: rename: No such file or directory [/a] [/b]");
}

}  // namespace
