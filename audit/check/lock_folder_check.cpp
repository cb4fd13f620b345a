#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/subject.h"
#include "utils/file_lock.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

constexpr mode_t OTHERS = S_IRWXG | S_IRWXO;

}  // namespace

void checkLockFolder(const CheckSink& sink) {
    const Subject folder(sink, "lock folder");
    const std::string path = LOCK_FOLDER;
    const std::string making = "install -d -o root -g root -m 0700 " + path;
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, path.c_str(), seen) != 0) {
        if (errno == ENOENT)
            folder.problem(path + " is not there: new mailboxes discard their mail", making);
        else
            folder.unreadable(path, errno);
    } else if (!S_ISDIR(seen.st_mode)) {
        folder.problem(path + " is no directory", "remove it; " + making);
    } else if (seen.st_uid != 0) {
        folder.problem(path + " is not root's: " + ownerAndMode(seen), making);
    } else if ((seen.st_mode & OTHERS) != 0) {
        folder.warning(path + " is open to others, who can block a run: " + ownerAndMode(seen),
                       making);
    } else {
        folder.ok(path);
    }
}

}  // namespace corvo::audit
