// The file systems that the storage is on.

#pragma once

#include <string>

namespace corvo::audit {

/// Whether a directory lies where nothing can be written. False where the kernel does not tell.
bool isOnReadOnlyDisk(const std::string& directory);

}  // namespace corvo::audit
