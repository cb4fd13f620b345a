#include "driver/storage_flush.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "mail/handlers/mail_handlers_db.h"
#include "mail/quota/mail_user_db.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace corvo {

namespace {

// Says what came of a flush.
void conclude(int result, const char* path) noexcept {
    if (result != 0 && errno != EROFS)
        Log().line(LOG_ERR, "Unable to flush %s: %s", path, std::strerror(errno));
}

// Whether there is no way to a directory, so that nothing can have been done in it.
bool isOutOfReach(int error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES ||
           error == ENAMETOOLONG;
}

// SQLite removes a journal without a flush of the folder that it lay in.
void flushFolderOf(const std::filesystem::path& database) {
    const std::filesystem::path path = database.parent_path();
    const UniqueFd folder = safe_path::openDirectory(AT_FDCWD, path.c_str());
    if (folder)
        conclude(retryOnEintr([&] { return ::fsync(folder.get()); }), path.c_str());
    else if (errno != ENOENT && errno != ENOTDIR)
        conclude(-1, path.c_str());
}

}  // namespace

void StorageFlush::note(const std::filesystem::path& directory) noexcept {
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, directory.c_str(), seen) != 0)
        conclude(isOutOfReach(errno) ? 0 : -1, directory.c_str());
    else if (S_ISDIR(seen.st_mode) && !fileSystems_.contains(seen.st_dev))
        conclude(add(seen.st_dev, directory), directory.c_str());
}

int StorageFlush::add(dev_t device, const std::filesystem::path& path) noexcept {
    UniqueFd directory = safe_path::openDirectory(AT_FDCWD, path.c_str());
    if (!directory)
        return -1;
    try {
        fileSystems_.emplace(device, FileSystem{std::move(directory), path});
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

void StorageFlush::flush() {
    for (const auto& [device, fileSystem] : fileSystems_)
        conclude(::syncfs(fileSystem.directory.get()), fileSystem.path.c_str());
    flushFolderOf(mail::MAIL_USER_DB);
    flushFolderOf(mh_db_path);
}

}  // namespace corvo
