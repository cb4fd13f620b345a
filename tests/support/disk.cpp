#include "tests/support/disk.h"

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <system_error>

#include "tests/support/files.h"

namespace corvo::test {

namespace {

void check(int result, const std::string& what) {
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

SmallDisk::SmallDisk(const std::string& directory, int pages, int entries) : directory_(directory) {
    makeDirectory(directory);
    const std::string limits =
        "nr_blocks=" + std::to_string(pages) + ",nr_inodes=" + std::to_string(entries);
    check(::mount("tmpfs", directory.c_str(), "tmpfs", 0, limits.c_str()), "mount " + directory);
}

SmallDisk::~SmallDisk() {
    (void)::umount2(directory_.c_str(), MNT_DETACH);
}

void SmallDisk::fill(int pagesLeft) const {
    struct statvfs room {};
    check(::statvfs(directory_.c_str(), &room), "statvfs " + directory_);
    const std::size_t pages = room.f_bfree - static_cast<std::size_t>(pagesLeft);
    writeFile(directory_ + "/filler", std::string(pages * PAGE, 'x'));
}

ReadOnlyDisk::ReadOnlyDisk(const std::string& directory) : directory_(directory) {
    const char* const path = directory_.c_str();
    check(::mount(path, path, nullptr, MS_BIND, nullptr), "bind " + directory);
    check(::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
          "remount " + directory);
}

ReadOnlyDisk::~ReadOnlyDisk() {
    (void)::umount2(directory_.c_str(), MNT_DETACH);
}

}  // namespace corvo::test
