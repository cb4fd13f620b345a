// A run that ended well is on the disk.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>

#include "utils/guards.h"

namespace corvo {

/// Remembers which file systems hold what a run has seen to, and brings them and the folders of the
/// two mail databases to the disk at its end. What was written is not asked for: a run that was
/// killed may have left it behind.
class StorageFlush {
public:
    /// The file system of this directory, a domain's root or a home, is one of them. Opened when it
    /// is first met, so that later it is still the same. A directory that is not there is on none.
    /// What keeps it from being flushed later is told in a line.
    void note(const std::filesystem::path& directory) noexcept;

    /// Flushes; what cannot be flushed is told in a line each, but for a file system that takes no
    /// changes.
    void flush();

private:
    struct FileSystem {
        UniqueFd directory;          // the first one met there
        std::filesystem::path path;  // its path
    };
    int add(dev_t device, const std::filesystem::path& path) noexcept;

    std::map<dev_t, FileSystem> fileSystems_;
};

}  // namespace corvo
