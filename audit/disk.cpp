#include "audit/disk.h"

#include <fcntl.h>
#include <sys/statvfs.h>

#include "utils/safe_path.h"

namespace corvo::audit {

bool isOnReadOnlyDisk(const std::string& directory) {
    const UniqueFd opened =
        safe_path::openTrusted(AT_FDCWD, directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct statvfs disk = {};
    return opened && ::fstatvfs(opened.get(), &disk) == 0 && (disk.f_flag & ST_RDONLY) != 0;
}

}  // namespace corvo::audit
