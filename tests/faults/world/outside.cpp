#include "tests/faults/world/outside.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "tests/faults/world/snapshot.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

const std::string USERDB_FOLDER = fs::path(test::USERDB).parent_path();
const std::string HANDLERS_FOLDER = fs::path(test::HANDLERS).parent_path();

// In the same file systems as what they stand in for: a hard link needs that.
const std::string STORAGE_BAIT = "/var/qmail/control";
const std::string DATABASE_BAIT = "/var/lib/corvo/private";

struct stat lookAt(const std::string& path) {
    struct stat seen {};
    if (::lstat(path.c_str(), &seen) != 0)
        throw std::system_error(errno, std::generic_category(), "lstat " + path);
    return seen;
}

bool isSameTime(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// A run makes and removes entries in these, so their times change.
bool isWorkedIn(const std::string& path) {
    return path == USERDB_FOLDER || path == HANDLERS_FOLDER;
}

/// What a run is there to change: the mail tree and the databases with their journals.
bool isRunsOwn(const std::string& path) {
    return path == test::MAILNAMES || path.starts_with(test::USERDB) ||
           path.starts_with(test::HANDLERS) || path.starts_with(USERDB_FOLDER + "/.aside");
}

void addTree(OutsideState& state, const std::string& top) {
    state[top] = {lookAt(top)};
    auto entry = fs::recursive_directory_iterator(top);
    for (const auto end = fs::recursive_directory_iterator(); entry != end; ++entry) {
        const std::string path = entry->path();
        if (isRunsOwn(path))
            entry.disable_recursion_pending();
        else
            state[path] = {lookAt(path), isWorkedIn(path)};
    }
}

/// Root's own copy of a tree's shape.
void copyShape(const std::string& from, const std::string& to) {
    for (const auto& [key, entry] : readTree(from)) {
        const std::string path = key.empty() ? to : to + "/" + key;
        if (S_ISDIR(entry.mode)) {
            test::makeDirectory(path);
            fs::permissions(path, fs::perms::owner_all);
        } else if (S_ISREG(entry.mode)) {
            test::writeFile(path, "| echo " + BAIT_MARK + "\n", 0, 0, 0600);
        }
    }
}

}  // namespace

bool OutsideEntry::isLeftAloneSince(const OutsideEntry& before) const {
    const struct stat& former = before.seen;
    if (seen.st_mode != former.st_mode || seen.st_uid != former.st_uid ||
        seen.st_gid != former.st_gid || seen.st_ino != former.st_ino)
        return false;
    if (isWorkedIn)
        return true;
    const bool hadFurtherNames = !S_ISDIR(former.st_mode) && former.st_nlink > 1;
    return seen.st_size == former.st_size && isSameTime(seen.st_mtim, former.st_mtim) &&
           (hadFurtherNames ||
            (seen.st_nlink == former.st_nlink && isSameTime(seen.st_ctim, former.st_ctim)));
}

std::string OutsideEntry::inWords() const {
    std::ostringstream text;
    text << std::oct << seen.st_mode << std::dec << ' ' << seen.st_uid << ':' << seen.st_gid << " #"
         << seen.st_ino << ", " << seen.st_nlink << " names, " << seen.st_size
         << " bytes, modified " << seen.st_mtim.tv_sec << '.' << seen.st_mtim.tv_nsec
         << ", changed " << seen.st_ctim.tv_sec << '.' << seen.st_ctim.tv_nsec;
    return text.str();
}

void placeBait() {
    copyShape(test::MAILNAMES, STORAGE_BAIT);
    copyShape(USERDB_FOLDER, DATABASE_BAIT);
    for (const std::string& bait : {STORAGE_BAIT, DATABASE_BAIT}) {
        test::writeFile(bait + "/secret", BAIT_MARK + "\n", 0, 0, 0600);
        test::writeFile(bait + "/empty", "", 0, 0, 0600);
    }
    // One that a quota could be stored in.
    test::writeFile(baitFor(test::USERDB), test::contentsOf(test::USERDB), 0, 0, 0600);
}

std::string baitFor(const std::string& path) {
    if (path.starts_with(test::MAILNAMES))
        return STORAGE_BAIT + path.substr(test::MAILNAMES.size());
    return DATABASE_BAIT + path.substr(USERDB_FOLDER.size());
}

OutsideState outsideState() {
    OutsideState state;
    for (const std::string_view path : {"/etc/group", "/etc/passwd", "/etc/shadow"})
        state[std::string(path)] = {lookAt(std::string(path))};
    for (const std::string_view top : {"/etc/vhc", "/var/qmail", "/var/lib/corvo"})
        addTree(state, std::string(top));
    return state;
}

}  // namespace corvo::faults
