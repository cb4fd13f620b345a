#include "tests/support/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "tests/support/sandbox.h"

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct stat lookAt(const std::string& path) {
    struct stat result {};
    if (::lstat(path.c_str(), &result) != 0)
        fail("lstat " + path);
    return result;
}

char typeLetter(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return '-';
        case S_IFDIR:
            return 'd';
        case S_IFLNK:
            return 'l';
        case S_IFIFO:
            return 'p';
        case S_IFSOCK:
            return 's';
        case S_IFCHR:
            return 'c';
        case S_IFBLK:
            return 'b';
        default:
            return '?';
    }
}

std::string describe(const fs::path& entry, const fs::path& root, bool whole) {
    const struct stat info = lookAt(entry);
    std::ostringstream line;
    line << typeLetter(info.st_mode) << ' ' << modeOf(entry) << ' ' << ownerOf(entry) << ' '
         << entry.lexically_relative(root).string();
    if (S_ISLNK(info.st_mode))
        line << " -> " << fs::read_symlink(entry).string();
    if (S_ISREG(info.st_mode))
        line << ' ' << info.st_size;
    if (whole && S_ISREG(info.st_mode))
        line << " #" << info.st_ino << " <" << contentsOf(entry) << '>';
    return line.str();
}

std::string list(const std::string& path, bool whole) {
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(path))
        lines.push_back(entry.path().lexically_relative(path).string());
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& relative : lines)
        text += describe(fs::path(path) / relative, path, whole) + "\n";
    return text;
}

}  // namespace

bool exists(const std::string& path) {
    struct stat result {};
    return ::lstat(path.c_str(), &result) == 0;
}

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail("open " + path);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

std::string modeOf(const std::string& path) {
    char text[8];
    (void)std::snprintf(text, sizeof text, "%04o", lookAt(path).st_mode & 07777U);
    return text;
}

std::string ownerOf(const std::string& path) {
    const struct stat info = lookAt(path);
    return std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid);
}

ino_t inodeOf(const std::string& path) {
    return lookAt(path).st_ino;
}

std::string popuser() {
    return std::to_string(POPUSER_UID) + ":" + std::to_string(POPUSER_GID);
}

void writeFile(const std::string& path, const std::string& contents) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
    file.close();
    if (!file)
        fail("write " + path);
}

void chownToPopuser(const std::string& path) {
    if (::lchown(path.c_str(), POPUSER_UID, POPUSER_GID) != 0)
        fail("chown " + path);
}

void writeFile(const std::string& path, const std::string& contents, uid_t uid, gid_t gid,
               mode_t mode) {
    writeFile(path, contents);
    if (::chown(path.c_str(), uid, gid) != 0 || ::chmod(path.c_str(), mode) != 0)
        fail("owner and mode of " + path);
}

void makeDirectory(const std::string& path) {
    fs::create_directories(path);
}

void makeLink(const std::string& target, const std::string& path, uid_t owner) {
    fs::create_directories(fs::path(path).parent_path());
    fs::create_symlink(target, path);
    if (::lchown(path.c_str(), owner, owner) != 0)
        fail("owner of " + path);
}

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string listTree(const std::string& path) {
    return list(path, false);
}

std::string fingerprint(const std::string& path) {
    return list(path, true);
}

int openDescriptors() {
    const auto entries = fs::directory_iterator("/proc/self/fd");
    // One of them is the directory that is being read.
    return static_cast<int>(std::distance(begin(entries), end(entries))) - 1;
}

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

}  // namespace corvo::test
