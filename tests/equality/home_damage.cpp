#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <set>

#include "mail/home/skeleton.h"
#include "tests/equality/damage.h"
#include "tests/faults/disturb/hostile_values.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::equality {

namespace {

namespace fs = std::filesystem;

using faults::below;
using test::POPUSER_GID;
using test::POPUSER_UID;

constexpr int RIGHT_HOME = 40;  // in a hundred
constexpr int RIGHT_SIZE = 50;

const std::vector<mode_t> MODES = {0755, 0700, 0750, 02700, 0500, 0777, 0};
const std::vector<std::string> MESSAGES = {
    "1700000001.M1P1.host,S=1200:2,S", "1700000002.M2P2.host,S=300", "1700000003.host",
    "1700000004.host,S=12x:2,", "1700000005.host,S=99999999999999999999,S=7"};

std::string someFolder(const std::string& home, std::mt19937_64& random) {
    const std::size_t chosen = below(mail::SKELETON.size() + 1, random);
    return chosen == 0 ? home : home + "/" + mail::SKELETON[chosen - 1].path;
}

void removeFolder(const std::string& home, std::mt19937_64& random) {
    fs::remove_all(someFolder(home, random));
}

void addFolder(const std::string& home, std::mt19937_64& random) {
    test::makeDirectory(someFolder(home, random) + "/" +
                        pick(std::vector<std::string>{".Extra", "cur", "other"}, random));
}

void changeOwner(const std::string& home, std::mt19937_64& random) {
    (void)!::chown(someFolder(home, random).c_str(), chance(50, random) ? 0 : test::STRANGER_UID,
                   chance(50, random) ? 0 : POPUSER_GID);
}

void changeMode(const std::string& home, std::mt19937_64& random) {
    (void)!::chmod(someFolder(home, random).c_str(), pick(MODES, random));
}

void putFileInPlace(const std::string& home, std::mt19937_64& random) {
    const std::string folder = someFolder(home, random);
    fs::remove_all(folder);
    if (fs::exists(fs::path(folder).parent_path()))
        test::writeFile(folder, "in the way");
}

void putLinkInPlace(const std::string& home, std::mt19937_64& random) {
    const std::string folder = someFolder(home, random);
    if (!fs::is_directory(fs::symlink_status(folder)))
        return;
    std::error_code taken;
    fs::rename(folder, folder + MOVED, taken);
    if (!taken)
        test::makeLink(folder + MOVED, folder, chance(70, random) ? POPUSER_UID : 0);
}

void changeDomain(const std::string& home, std::mt19937_64& random) {
    const std::string root = fs::path(home).parent_path();
    if (chance(50, random))
        (void)!::chown(root.c_str(), 0, 0);
    else
        (void)!::chmod(root.c_str(), pick(MODES, random));
}

void addMessages(const std::string& home, std::mt19937_64& random) {
    const std::string folder =
        home + pick(std::vector<std::string>{"/Maildir/new/", "/Maildir/cur/",
                                             "/Maildir/.Sent/cur/", "/Maildir/.Extra/new/"},
                    random);
    if (!fs::is_directory(home + "/Maildir"))
        return;
    for (std::size_t left = below(4, random); left > 0; --left)
        test::writeFile(folder + pick(MESSAGES, random), "a message\n", POPUSER_UID, POPUSER_GID,
                        0600);
}

void addAttachments(const std::string& home, std::mt19937_64& random) {
    if (fs::is_directory(home + "/@attachments"))
        test::writeFile(home + "/@attachments/a/b", std::string(below(9000, random), 'a'));
}

constexpr void (*HOME_DAMAGES[])(const std::string&, std::mt19937_64&) = {
    removeFolder, removeFolder, addFolder,      changeOwner,    changeOwner,
    changeMode,   changeMode,   addMessages,    addMessages,    changeDomain,
    addMessages,  addFolder,    putFileInPlace, putLinkInPlace, addAttachments,
};

void rewrite(const std::string& path, const std::string& text) {
    test::writeFile(path, text, POPUSER_UID, POPUSER_GID, 0644);
}

void replaceSize(const std::string& path, std::mt19937_64& random) {
    switch (below(4, random)) {
        case 0:
            fs::remove(path);
            test::makeDirectory(path);
            break;
        case 1:
            fs::remove(path);
            (void)::mkfifo(path.c_str(), 0644);
            break;
        case 2:
            if (fs::exists(path) && !fs::exists(path + MOVED)) {
                fs::rename(path, path + MOVED);
                test::makeLink("maildirsize" + MOVED, path, POPUSER_UID);
            }
            break;
        default:
            if (fs::exists(path) && !fs::exists(path + "-second"))
                fs::create_hard_link(path, path + "-second");
    }
}

void damageSize(const std::string& path, std::mt19937_64& random) {
    const std::string text =
        fs::is_regular_file(fs::symlink_status(path)) ? test::contentsOf(path) : "";
    switch (below(7, random)) {
        case 0:
            fs::remove(path);
            break;
        case 1:
            rewrite(path, text + "        1200           1\n");
            break;
        case 2:
            rewrite(path,
                    pick(std::vector<std::string>{"", "abc", "5S,3C\n", text + "\n"}, random));
            break;
        case 3:
            if (!text.empty())
                (void)!::chmod(path.c_str(), pick(std::vector<mode_t>{0600, 0666, 0}, random));
            break;
        case 4:
            if (!text.empty())
                (void)!::chown(path.c_str(), 0, 0);
            break;
        case 5:
            test::writeFile(fs::path(path).parent_path() / "tmp/1700000000.9.host-maildirsize", "");
            break;
        default:
            replaceSize(path, random);
    }
}

}  // namespace

void damageHomes(const Description& description, std::mt19937_64& random) {
    std::set<std::string> seen;
    for (const Mailname& name : description.mailnames) {
        const std::string home = test::MAILNAMES + "/" + name.home();
        if (!fs::is_directory(home) || !seen.insert(home).second)
            continue;
        const std::string size = home + "/Maildir/maildirsize";
        if (!chance(RIGHT_SIZE, random) && fs::is_directory(home + "/Maildir"))
            attemptDamage([&] { damageSize(size, random); });
        if (chance(RIGHT_HOME, random))
            continue;
        for (std::size_t left = 1 + below(3, random); left > 0 && fs::is_directory(home); --left)
            attemptDamage(
                [&] { HOME_DAMAGES[below(std::size(HOME_DAMAGES), random)](home, random); });
    }
}

}  // namespace corvo::equality
