#include "tests/faults/world/snapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <exception>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

constexpr const char* DATABASES = "/var/lib/corvo";
constexpr const char* LOCKS = "/run/lock/files";

/// Where copies of the databases are looked at.
constexpr const char* JUDGE = "/run/judge";

constexpr std::int64_t SECOND = 1'000'000'000;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

std::string joined(const std::string& top, const std::string& key) {
    return key.empty() ? top : top + "/" + key;
}

std::string fileContent(int parent, const char* name) {
    const int file = ::openat(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0)
        fail(std::string("open ") + name);
    std::string content;
    std::array<char, 16384> piece{};
    ssize_t got = 0;
    while ((got = ::read(file, piece.data(), piece.size())) > 0)
        content.append(piece.data(), static_cast<std::size_t>(got));
    ::close(file);
    return content;
}

std::string linkTarget(int parent, const char* name) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(parent, name, target.data(), target.size());
    if (length < 0)
        fail(std::string("readlink ") + name);
    return {target.data(), static_cast<std::size_t>(length)};
}

/// Walks on descriptors: a hostile tree may be deeper than the longest path.
class TreeReader {
public:
    TreeReader(Tree& tree, bool withTimes, const std::set<std::string>& skipped)
        : tree_(tree), withTimes_(withTimes), skipped_(skipped) {}

    /// Adds the entry `name` of an open directory under `key`, and all below it. An entry that
    /// vanishes meanwhile is none.
    void add(int parent, const char* name, const std::string& key) {
        struct stat seen {};
        if (skipped_.contains(key) || ::fstatat(parent, name, &seen, AT_SYMLINK_NOFOLLOW) != 0)
            return;
        Entry& entry = tree_[key];
        entry = {seen.st_mode, seen.st_uid, seen.st_gid, seen.st_ino, "", 0};
        if (withTimes_)
            entry.modified = seen.st_mtim.tv_sec * SECOND + seen.st_mtim.tv_nsec;
        if (S_ISREG(seen.st_mode))
            entry.content = fileContent(parent, name);
        else if (S_ISLNK(seen.st_mode))
            entry.content = linkTarget(parent, name);
        else if (S_ISDIR(seen.st_mode))
            addEntriesOf(parent, name, key);
    }

private:
    void addEntriesOf(int parent, const char* name, const std::string& key) {
        const Directory directory(
            ::fdopendir(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
        if (!directory)
            fail("open " + key);
        while (const dirent* found = ::readdir(directory.get())) {
            const std::string_view below = found->d_name;
            if (below != "." && below != "..")
                add(::dirfd(directory.get()), found->d_name,
                    key.empty() ? std::string(below) : key + "/" + found->d_name);
        }
    }

    Tree& tree_;
    bool withTimes_;
    const std::set<std::string>& skipped_;
};

/// Without what has its own place in a snapshot.
Tree readCanary() {
    static const std::set<std::string> elsewhere = {test::MAILNAMES.substr(1),
                                                    std::string(LOCKS).substr(1)};
    Tree tree;
    TreeReader reader(tree, true, elsewhere);
    for (const std::string& path : canaryFolders())
        reader.add(AT_FDCWD, path.c_str(), path.substr(1));
    return tree;
}

void remove(const std::string& path) {
    std::error_code ignored;  // what a fault has mounted or made immutable shows as a difference
    fs::remove_all(path, ignored);
}

void create(const std::string& path, const Entry& wanted) {
    if (S_ISDIR(wanted.mode))
        test::makeDirectory(path);
    else if (S_ISLNK(wanted.mode))
        test::makeLink(wanted.content, path);
    else
        test::writeFile(path, wanted.content);
}

void setOwnerModeTime(const std::string& path, const Entry& wanted) {
    if (::lchown(path.c_str(), wanted.uid, wanted.gid) != 0)
        fail("owner of " + path);
    if (!S_ISLNK(wanted.mode) && ::chmod(path.c_str(), wanted.mode & 07777U) != 0)
        fail("mode of " + path);
    if (wanted.modified == 0)
        return;
    const timespec time = {wanted.modified / SECOND, wanted.modified % SECOND};
    const std::array<timespec, 2> times = {time, time};
    if (::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0)
        fail("times of " + path);
}

bool isSameButInode(Entry left, const Entry& right) {
    left.inode = right.inode;
    return left == right;
}

constexpr bool isOfOneType(const Entry& left, const Entry& right) {
    return (left.mode & S_IFMT) == (right.mode & S_IFMT);
}

void removeOthers(const std::string& path, const Tree& current, const Tree& wanted) {
    for (const auto& [key, entry] : current) {
        const auto kept = wanted.find(key);
        if (kept == wanted.end() || !isOfOneType(entry, kept->second))
            remove(joined(path, key));
    }
}

void createMissing(const std::string& path, const Tree& current, const Tree& wanted) {
    for (const auto& [key, entry] : wanted) {
        const auto found = current.find(key);
        if (found == current.end() || !isOfOneType(found->second, entry) ||
            found->second.content != entry.content)
            create(joined(path, key), entry);
    }
}

/// Deepest first: what is done to an entry changes the time of its directory.
void setAttributes(const std::string& path, const Tree& current, const Tree& wanted) {
    const bool exactTimes = wanted.begin()->second.modified != 0;
    for (auto entry = wanted.rbegin(); entry != wanted.rend(); ++entry) {
        const auto found = current.find(entry->first);
        if (exactTimes || found == current.end() || !isSameButInode(found->second, entry->second))
            setOwnerModeTime(joined(path, entry->first), entry->second);
    }
}

/// What one SQLite file says, read from a copy with its journal.
struct DatabaseReading {
    std::string rows;
    std::string integrity;
};

std::string lines(const std::vector<std::string>& rows) {
    std::string text;
    for (const std::string& row : rows)
        text += row + "\n";
    return text;
}

std::string contentAt(const Tree& databases, const std::string& path) {
    const auto found = databases.find(path.substr(std::string(DATABASES).size() + 1));
    return found == databases.end() ? std::string() : found->second.content;
}

DatabaseReading readDatabase(const std::string& content, const std::string& journal,
                             const std::string& query) {
    const std::string copy = std::string(JUDGE) + "/copy.db";
    remove(copy + "-journal");
    test::writeFile(copy, content);
    if (!journal.empty())
        test::writeFile(copy + "-journal", journal);
    try {
        test::sqliteExecute(copy, "SELECT count(*) FROM sqlite_master");  // rolls back
        const std::string found = lines(test::sqliteRows(copy, "PRAGMA integrity_check"));
        return {lines(test::sqliteRows(copy, query)), found == "ok\n" ? "" : found};
    } catch (const std::runtime_error& error) {
        return {"", error.what()};
    }
}

/// The reading of the database at `path`. Most snapshots meet the bytes of the one before.
DatabaseReading readDatabase(const Tree& databases, const std::string& path,
                             const std::string& query) {
    struct Known {
        std::string content;
        std::string journal;
        DatabaseReading reading;
    };
    static std::map<std::string, Known> known;
    const std::string content = contentAt(databases, path);
    const std::string journal = contentAt(databases, path + "-journal");
    Known& last = known[path];
    if (last.content != content || last.journal != journal || content.empty())
        last = {content, journal, readDatabase(content, journal, query)};
    return last.reading;
}

}  // namespace

const std::set<std::string>& canaryFolders() {
    static const std::set<std::string> folders = {
        "/etc/group",     "/etc/passwd",           "/etc/shadow",     "/etc/vhc",   "/run/lock",
        "/usr/local/vhc", "/usr/bin/deliverquota", "/var/lib/canary", "/var/qmail",
    };
    return folders;
}

Tree readTree(const std::string& path, bool withTimes) {
    Tree tree;
    static const std::set<std::string> nothing;
    TreeReader(tree, withTimes, nothing).add(AT_FDCWD, path.c_str(), "");
    return tree;
}

void restoreTree(const std::string& path, const Tree& current, const Tree& wanted) {
    removeOthers(path, current, wanted);
    createMissing(path, current, wanted);
    setAttributes(path, current, wanted);
}

void restoreSandbox(const Snapshot& wanted) {
    restoreTree(test::MAILNAMES, readTree(test::MAILNAMES), wanted.storage);
    restoreTree(DATABASES, readTree(DATABASES), wanted.databases);
    restoreTree(LOCKS, readTree(LOCKS), wanted.locks);
    const Tree canary = readCanary();
    if (!std::equal(canary.begin(), canary.end(), wanted.canary.begin(), wanted.canary.end(),
                    [](const auto& left, const auto& right) {
                        return left.first == right.first &&
                               isSameButInode(left.second, right.second);
                    }))
        restoreTree("", canary, wanted.canary);
}

Snapshot Snapshot::take() {
    Snapshot snapshot = of(readTree(test::MAILNAMES), readTree(DATABASES));
    snapshot.locks = readTree(LOCKS);
    snapshot.canary = readCanary();
    return snapshot;
}

Snapshot Snapshot::of(Tree storage, Tree databases) {
    Snapshot snapshot;
    snapshot.storage = std::move(storage);
    snapshot.databases = std::move(databases);
    const DatabaseReading quotas =
        readDatabase(snapshot.databases, test::USERDB,
                     "SELECT domain_name, mailbox_name, quota FROM mailbox_quota ORDER BY 1, 2");
    const DatabaseReading handlers =
        readDatabase(snapshot.databases, test::HANDLERS,
                     "SELECT queue, type, name, address, enabled, priority, executable, context, "
                     "protected FROM handlers ORDER BY 1, 2, 3, 4");
    snapshot.quotaRows = quotas.rows;
    snapshot.handlerRows = handlers.rows;
    snapshot.integrity = quotas.integrity + handlers.integrity;
    return snapshot;
}

}  // namespace corvo::faults
