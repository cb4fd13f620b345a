#include "tests/faults/world/trap_scene.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/world/outside.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sqlite.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

constexpr const char* DATABASES = "/var/lib/corvo";
constexpr long long QUOTA = 10'485'760;

void giveToPopuser(const std::string& path) {
    if (::lchown(path.c_str(), test::POPUSER_UID, test::POPUSER_GID) != 0)
        throw std::system_error(errno, std::generic_category(), "chown " + path);
}

void giveTreeToPopuser(const std::string& top) {
    giveToPopuser(top);
    for (const auto& entry : fs::recursive_directory_iterator(top))
        giveToPopuser(entry.path());
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

void emptyStorage() {
    for (const std::string& name : test::namesIn(test::MAILNAMES))
        fs::remove_all(test::MAILNAMES + "/" + name);
    test::writeFile(test::DEFAULT_DELIVERY, test::DELIVERY_LINE + "\n", test::POPUSER_UID,
                    test::POPUSER_GID, 0600);
}

void fillHome(const std::string& home) {
    const std::string maildir = test::MAILNAMES + "/" + home + "/Maildir";
    test::writeFile(maildir + "/new/1.M1P1.host,S=5", "first");
    test::writeFile(maildir + "/cur/2.host:2,S", "second");
    test::writeFile(maildir + "/.Spam/cur/3.host:2,", "third one");
    test::writeFile(maildir + "/.Other/cur/4.host:2,", "in a folder of the owner's own");
    test::writeFile(test::MAILNAMES + "/" + home + "/@attachments/letter/body",
                    std::string(100, 'x'));
    test::writeFile(test::MAILNAMES + "/" + home + "/.qmail", "| true\n&old@example.net\n", 0, 0,
                    0600);
    test::writeFile(maildir + "/maildirsize", "1S,0C\n           1           1\n");
}

void damageHome(const std::string& home) {
    const std::string top = test::MAILNAMES + "/" + home;
    fs::remove_all(top + "/Maildir/.Trash");
    fs::remove(top + "/.qmail");
    fs::remove(top + "/Maildir/maildirsize");
    fs::permissions(top + "/Maildir/tmp", fs::perms::owner_read);
}

void requireSuccess(const Outcome& outcome) {
    if (outcome.status != 0 || outcome.hung || outcome.err.find("ignored") != std::string::npos)
        throw std::runtime_error("an undisturbed run of the scene fails: " + outcome.err);
}

}  // namespace

Restored Restored::look() {
    return {readTree(test::MAILNAMES), joined(test::quotaRows()), joined(test::handlerRows())};
}

std::vector<std::string> trapPlaces(const Restored& golden) {
    std::vector<std::string> places = {test::MAILNAMES + "/" + TRAPPED_DOMAIN,
                                       test::MAILNAMES + "/.default_delivery",
                                       test::MAILNAMES + "/" + TRAPPED_HOME + "/.qmail.tmp"};
    for (const auto& [key, entry] : golden.storage)
        if (key == TRAPPED_HOME || key.starts_with(TRAPPED_HOME + "/"))
            places.push_back(test::MAILNAMES + "/" + key);
    for (const std::string suffix : {"", "-journal", "-wal", "-shm"})
        places.push_back(test::USERDB + suffix);
    return places;
}

TrapScene::TrapScene() {
    describe();
    prepareStorage();
    giveToPopuser(fs::path(test::USERDB).parent_path());
    test::sqliteExecute(test::USERDB, "DELETE FROM mailbox_quota");
    placeBait();
    startStorage_ = readTree(test::MAILNAMES);
    startDatabases_ = readTree(DATABASES);
    requireSuccess(undisturbedRun());
    golden_ = Restored::look();
}

void TrapScene::describe() {
    auto trapped = panel_.domain(TRAPPED_DOMAIN);
    trapped.mailname("info").quota(QUOTA).group().redirect("far@away.example");
    trapped.mailname("peer").quota(QUOTA);
    panel_.domain("honest.example")
        .mailname("office")
        .quota(QUOTA)
        .group()
        .redirect("far@away.example");
}

/// A first run makes the homes.
void TrapScene::prepareStorage() const {
    emptyStorage();
    requireSuccess(undisturbedRun());
    for (const std::string& home : HOMES)
        fillHome(home);
    giveTreeToPopuser(test::MAILNAMES);
    damageHome(NEIGHBOUR_HOME);
    damageHome(HONEST_HOME);
}

void TrapScene::reset() const {
    restoreTree(test::MAILNAMES, readTree(test::MAILNAMES), startStorage_);
    restoreTree(DATABASES, readTree(DATABASES), startDatabases_);
}

}  // namespace corvo::faults
