// A file as a block device.

#pragma once

#include <string>

#include "utils/guards.h"

namespace corvo::faults {

/// Takes a free loop device for a file. Whatever is sent to the device is in the file at once. The
/// device is given back when this is gone and nothing on it is mounted any more, also after a
/// crash.
class LoopDevice {
public:
    /// Throws std::system_error where no loop device can be had.
    explicit LoopDevice(const std::string& file);
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    ~LoopDevice() = default;

    const std::string& path() const { return path_; }

    /// What the kernel counts of writing: two equal texts, nothing was sent between them. Writes
    /// that are under way count.
    std::string writes() const;

private:
    std::string path_;
    UniqueFd device_;
};

}  // namespace corvo::faults
