#include "tests/support/sandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/files.h"

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

// Where the overlays' upper layers are made; hidden again once they are mounted.
constexpr const char* STAGE = "/mnt";

constexpr const char* OVERLAID[] = {"/etc", "/usr", "/var"};
constexpr const char* EMPTIED[] = {"/etc/vhc", "/var/qmail", "/var/lib/corvo", "/run"};
constexpr const char* DELIVERQUOTA = "/usr/bin/deliverquota";
constexpr const char* DOVECOT_LDA = "/usr/libexec/dovecot/dovecot-lda";

void check(int result, const std::string& what) {
    if (result != 0)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

void mountTmpfs(const std::string& at) {
    check(::mount("tmpfs", at.c_str(), "tmpfs", 0, "mode=0755"), "mount tmpfs on " + at);
}

void mountOverlay(const std::string& over) {
    const std::string layer = STAGE + over;
    fs::create_directories(layer + "/upper");
    fs::create_directories(layer + "/work");
    const std::string options =
        "lowerdir=" + over + ",upperdir=" + layer + "/upper,workdir=" + layer + "/work";
    check(::mount("overlay", over.c_str(), "overlay", 0, options.c_str()), "overlay on " + over);
}

// The machine's own accounts without ours, should it have them.
std::string accountsBeside(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream kept;
    for (std::string line; std::getline(file, line);)
        if (!line.starts_with("popuser:") && !line.starts_with("stranger:"))
            kept << line << '\n';
    return kept.str();
}

void writeAccounts() {
    static const std::string passwd = accountsBeside("/etc/passwd");
    static const std::string group = accountsBeside("/etc/group");
    writeFile("/etc/passwd", passwd +
                                 "popuser:x:1031:1032:mail storage:/var/qmail/popuser:/bin/false\n"
                                 "stranger:x:1041:1042::/nonexistent:/bin/false\n");
    writeFile("/etc/group", group + "popuser:x:1032:\nstranger:x:1042:\n");
}

void removeEntry(const std::string& database, const std::string& name) {
    std::istringstream lines(contentsOf(database));
    std::string kept;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with(name + ":"))
            kept += line + "\n";
    writeFile(database, kept);
}

void isolate() {
    check(::unshare(CLONE_NEWNS), "unshare");
    check(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
    mountTmpfs(STAGE);
    for (const char* path : OVERLAID)
        mountOverlay(path);
    check(::umount2(STAGE, MNT_DETACH), "detach the stage");
    for (const char* path : EMPTIED) {
        fs::create_directories(path);
        mountTmpfs(path);
    }
}

}  // namespace

std::string enterSandbox() {
    if (::geteuid() != 0)
        return "these tests make a private mount namespace and change owners: run them as root";
    try {
        isolate();
    } catch (const std::exception& e) {
        return std::string("no private mount namespace can be made here: ") + e.what();
    }
    return "";
}

void resetSandbox() {
    check(::chdir("/"), "chdir /");
    ::umask(022);
    for (const char* path : EMPTIED) {
        check(::umount2(path, MNT_DETACH), std::string("unmount ") + path);
        mountTmpfs(path);
    }
    fs::create_directories(MAILNAMES);
    fs::create_directories("/run/lock/files");
    fs::permissions("/run/lock/files", fs::perms::owner_all);
    fs::remove(DELIVERQUOTA);
    fs::remove(DOVECOT_LDA);
    writeAccounts();
}

void removeUser(const std::string& name) {
    removeEntry("/etc/passwd", name);
}

void removeGroup(const std::string& name) {
    removeEntry("/etc/group", name);
}

void installDeliverquota() {
    writeFile(DELIVERQUOTA, "#!/bin/sh\nexit 0\n", 0, 0, 0755);
}

}  // namespace corvo::test
