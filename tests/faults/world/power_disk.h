// A disk of its own for mail storage and databases, and what a power cut would leave of it.
//
// A file system holds back what is written to it until something is flushed or time has passed.
// The disk is a file behind a loop device, so a copy of the file has what the file system has sent
// to the device, and nothing else.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/faults/disturb/loop_device.h"
#include "tests/faults/world/snapshot.h"

namespace corvo::faults {

struct FileSystem {
    std::string name;                // as mount has it: "ext4", "xfs"
    long long size = 0;              // of the disk, in bytes; most of it is never written
    std::vector<std::string> make;   // the program that makes one, and its options
    std::vector<std::string> check;  // the program that looks for damage and mends nothing
    std::string options;             // for mounting a copy beside the original
};

/// Both with the options that their makers have as default.
const std::vector<FileSystem>& fileSystems();

/// Why no disk with this file system can be had here; empty when one can.
std::string obstacleTo(const FileSystem& fileSystem);

/// As long as this lives, /var/qmail and /var/lib/corvo are on the disk, empty at first.
class PowerDisk {
public:
    /// Throws std::runtime_error, and leaves nothing mounted then.
    explicit PowerDisk(const FileSystem& fileSystem);
    PowerDisk(const PowerDisk&) = delete;
    PowerDisk& operator=(const PowerDisk&) = delete;
    ~PowerDisk();

    /// All that was written is on the disk when this returns.
    void flush() const;

    /// What is found after a power cut at this moment and a restart.
    struct Found {
        Snapshot snapshot;   // storage, databases and rows; nothing else
        std::string damage;  // what the file system's own check says; empty when it finds none
    };
    Found cut() const;

private:
    class Mount;

    void copyImage() const;

    const FileSystem& fileSystem_;
    std::unique_ptr<Mount> room_;  // where the images lie
    std::unique_ptr<LoopDevice> device_;
    std::unique_ptr<Mount> disk_;
    std::unique_ptr<Mount> storage_;
    std::unique_ptr<Mount> databases_;
};

}  // namespace corvo::faults
