// What the tests of safe_path share: a home with a file in it, and every way into them.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "utils/safe_path.h"

namespace corvo::test::paths {

using safe_path::LastLink;
using safe_path::PermissionStep;

inline const std::string DOMAIN = MAILNAMES + "/example.com";
inline const std::string HOME = DOMAIN + "/info";
inline const std::string FILE_PATH = HOME + "/.qmail";

class SafePathTest : public SandboxTest {
protected:
    SafePathTest() { writeFile(FILE_PATH, "old\n", POPUSER_UID, POPUSER_GID, 0600); }
};

/// 0, or the errno of a failure.
inline int errorOf(const UniqueFd& file) {
    return file ? 0 : errno;
}
inline int errorOf(int result) {
    return result >= 0 ? 0 : errno;
}

inline int openError(const std::string& path, int flags) {
    return errorOf(safe_path::openFile(AT_FDCWD, path.c_str(), flags, 0600));
}

inline int statusError(const std::string& path) {
    struct stat seen {};
    return errorOf(safe_path::status(AT_FDCWD, path.c_str(), seen));
}

inline int permissionError(const std::string& path) {
    PermissionStep failed{};
    return errorOf(safe_path::setOwnerAndMode(AT_FDCWD, path.c_str(), POPUSER_UID, POPUSER_GID,
                                              0600, &failed));
}

inline int unopenedPermissionError(const std::string& path, PermissionStep& failed) {
    return errorOf(
        safe_path::setOwnerAndModeUnopened(AT_FDCWD, path.c_str(), 5, 6, 02640, &failed));
}

/// Every way into the file, by the name of the call.
struct Way {
    const char* name;
    std::function<int()> error;
};

inline std::vector<Way> waysTo(const std::string& directory) {
    const std::string file = directory + "/.qmail";
    return {
        {"openFile", [=] { return openError(file, O_RDONLY); }},
        {"openFile to write", [=] { return openError(file, O_WRONLY | O_CREAT | O_TRUNC); }},
        {"openFile to create", [=] { return openError(file + "x", O_WRONLY | O_CREAT | O_EXCL); }},
        {"status", [=] { return statusError(file); }},
        {"setOwnerAndMode", [=] { return permissionError(file); }},
        {"openDirectory",
         [=] { return errorOf(safe_path::openDirectory(AT_FDCWD, directory.c_str())); }},
        {"openEntries",
         [=] { return safe_path::openEntries(AT_FDCWD, directory.c_str()) ? 0 : errno; }},
        {"makeDirectory",
         [=] {
             return errorOf(safe_path::makeDirectory(AT_FDCWD, (directory + "/d").c_str(), 0700));
         }},
        {"makeDirectories",
         [=] {
             return errorOf(
                 safe_path::makeDirectories(AT_FDCWD, (directory + "/e/f").c_str(), 0700));
         }},
        {"renameEntry",
         [=] {
             return errorOf(safe_path::renameEntry(AT_FDCWD, (directory + "/d").c_str(),
                                                   (directory + "/g").c_str()));
         }},
        {"unlinkEntry",
         [=] { return errorOf(safe_path::unlinkEntry(AT_FDCWD, (file + "x").c_str())); }},
        {"removeTree",
         [=] { return errorOf(safe_path::removeTree(AT_FDCWD, (directory + "/e").c_str())); }},
        {"changeDirectory", [=] { return errorOf(safe_path::changeDirectory(directory.c_str())); }},
    };
}

/// Asks a question with the rights of an ordinary account; 0 when the answer is yes.
inline int asStranger(const std::function<bool()>& question) {
    if (::seteuid(STRANGER_UID) != 0)
        return 99;
    const bool answer = question();
    return ::seteuid(0) == 0 && answer ? 0 : 1;
}

/// Nothing is at /proc for this process from now on: for forked children.
inline void hideProc() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0)
        std::abort();
}

}  // namespace corvo::test::paths
