// Disks that are full or cannot be written. All throw std::system_error.

#pragma once

#include <string>

namespace corvo::test {

/// While it lives, a directory is an empty file system of its own. Makes the directory.
class SmallDisk {
public:
    static constexpr int PAGE = 4096;  // bytes: what a file takes is rounded up to it

    /// Room for so many pages and so many entries, the root's one among them; 0 is no limit.
    explicit SmallDisk(const std::string& directory, int pages, int entries = 0);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    /// Takes all the room but so many pages, by the file "filler".
    void fill(int pagesLeft = 0) const;

private:
    std::string directory_;
};

/// While it lives, nothing can be written below a directory, though its own permissions allow it.
class ReadOnlyDisk {
public:
    explicit ReadOnlyDisk(const std::string& directory);
    ~ReadOnlyDisk();
    ReadOnlyDisk(const ReadOnlyDisk&) = delete;
    ReadOnlyDisk& operator=(const ReadOnlyDisk&) = delete;

private:
    std::string directory_;
};

}  // namespace corvo::test
