#include "tests/faults/world/traps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "tests/faults/world/outside.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

// Beyond what works on whole trees enters.
constexpr int DEPTH = 600;

void check(int result, const std::string& what) {
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

void giveToPopuser(const std::string& path) {
    check(::lchown(path.c_str(), test::POPUSER_UID, test::POPUSER_GID), "chown " + path);
}

bool isDirectory(const std::string& path) {
    return fs::is_directory(fs::symlink_status(path));
}

std::string baitTop(const std::string& path) {
    return baitFor(fs::path(asideOf(path)).parent_path());
}

/// Root's counterpart, or another file of root's where there is none.
std::string target(const std::string& path) {
    const std::string counterpart = baitFor(path);
    return test::exists(counterpart) ? counterpart : baitTop(path) + "/secret";
}

/// The kernel keeps an ordinary account from linking to what it may not write, unless an
/// administrator has switched that off.
void linkHard(const std::string& file, const std::string& path) {
    check(::link(file.c_str(), path.c_str()), "link " + path);
}

void stealLink(const std::string& path) {
    const std::string original = baitTop(path) + "/root's-link";
    fs::remove(original);
    test::makeLink(target(path), original);
    linkHard(original, path);
}

void makeNode(const std::string& path, mode_t type) {
    check(::mknod(path.c_str(), type | 0600U, 0), "mknod " + path);
    giveToPopuser(path);
}

void makeWrongType(const std::string& path, bool inPlaceOfDirectory) {
    if (inPlaceOfDirectory)
        test::writeFile(path, "no directory\n");
    else
        test::makeDirectory(path);
    giveToPopuser(path);
}

void makeDeepNesting(const std::string& path) {
    test::makeDirectory(path);
    giveToPopuser(path);
    int parent = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    for (int depth = 0; depth < DEPTH; ++depth) {
        check(::mkdirat(parent, "d", 0700), "mkdir below " + path);
        check(::fchownat(parent, "d", test::POPUSER_UID, test::POPUSER_GID, 0), "chown");
        const int next = ::openat(parent, "d", O_PATH | O_CLOEXEC);
        ::close(parent);
        parent = next;
    }
    ::close(parent);
}

}  // namespace

std::string nameOf(TrapKind kind) {
    static const std::string names[] = {"link",        "proc-link",  "dangling-link", "loop-link",
                                        "stolen-link", "hard-link",  "empty-link",    "fifo",
                                        "socket",      "wrong-type", "deep-nesting"};
    return names[static_cast<std::size_t>(kind)];
}

std::string asideOf(const std::string& path) {
    const bool inTree = path.starts_with(test::MAILNAMES);
    return (inTree ? test::MAILNAMES : fs::path(test::USERDB).parent_path().string()) + "/.aside";
}

void plant(const std::string& path, TrapKind kind, bool inPlaceOfDirectory) {
    switch (kind) {
        case TrapKind::link:
            return test::makeLink(target(path), path, test::POPUSER_UID);
        case TrapKind::procLink:
            return test::makeLink("/proc/self/root" + target(path), path, test::POPUSER_UID);
        case TrapKind::danglingLink:
            return test::makeLink(target(path) + ".missing", path, test::POPUSER_UID);
        case TrapKind::loopLink:
            return test::makeLink(fs::path(path).filename(), path, test::POPUSER_UID);
        case TrapKind::stolenLink:
            return stealLink(path);
        case TrapKind::hardLink:
            return linkHard(isDirectory(target(path)) ? baitTop(path) + "/secret" : target(path),
                            path);
        case TrapKind::emptyLink:
            return linkHard(baitTop(path) + "/empty", path);
        case TrapKind::fifo:
            return makeNode(path, S_IFIFO);
        case TrapKind::socket:
            return makeNode(path, S_IFSOCK);
        case TrapKind::wrongType:
            return makeWrongType(path, inPlaceOfDirectory);
        case TrapKind::deepNesting:
            return makeDeepNesting(path);
    }
}

void plantTrap(const std::string& path, TrapKind kind) {
    const bool inPlaceOfDirectory = isDirectory(path);
    if (test::exists(path))
        fs::rename(path, asideOf(path));
    plant(path, kind, inPlaceOfDirectory);
}

void removeTrap(const std::string& path) {
    fs::remove_all(path);
    if (test::exists(asideOf(path)))
        fs::rename(asideOf(path), path);
}

}  // namespace corvo::faults
