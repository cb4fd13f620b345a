#include "mail/handlers/mail_handlers_creation.h"

#include <fcntl.h>
#include <grp.h>
#include <libgen.h>

#include <cerrno>
#include <cstring>

#include "mail/handlers/mail_handlers_db.h"
#include "mail/sqlite/sqlite_session.h"
#include "utils/accounts.h"
#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteText;

constexpr const char* LABEL = "mail handlers";

constexpr const char* SCHEMA =
    "BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, "
    "priority INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable "
    "VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, "
    "CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address));"  // sic
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);CREATE INDEX idx2 ON "
    "handlers(queue, type, enabled, address, priority);CREATE INDEX idx3 ON handlers(name, queue, "
    "type, address);CREATE INDEX idx4 ON handlers(name, queue, type);COMMIT;";

constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t DATABASE_MODE = 0640;

}  // namespace

int sqlite_create_db_path(const char* path, const char* label) noexcept {
    if (*path == '\0') {
        errno = ENOENT;
        corvo::Log().line(LOG_ERR, "Unable to get dirname for %s database (%s): %s (%d)", label,
                          path, std::strerror(errno), errno);
        return -1;
    }
    const corvo::UniqueCString copy(::strdup(path));
    if (!copy) {
        corvo::Log().line(LOG_ERR, "Memory allocation error");
        return -1;
    }
    const char* const directory = ::dirname(copy.get());
    if (!corvo::safe_path::makeDirectories(AT_FDCWD, directory, DIRECTORY_MODE)) {
        corvo::Log().line(LOG_ERR, "Unable to create directories for %s database (%s): %s (%d)",
                          label, path, std::strerror(errno), errno);
        return -1;
    }
    return 0;
}

int sqlite_db_create(const char* path, const char* script, const char* label) noexcept {
    const SqliteSession session(path, SqliteAccess::readWrite);
    if (!session)
        return -1;
    SqliteText error;
    if (session.execute(script, error))
        return 0;
    if (error)
        corvo::Log().line(LOG_ERR, "Unable to re-create %s database: %s", label, error.get());
    else
        corvo::Log().line(LOG_ERR, "Unable to re-create %s database", label);
    return -1;
}

int mh_db_create_no_set_permissions() noexcept {
    if (sqlite_create_db_path(mh_db_path, LABEL) != 0) {
        corvo::Log().line(LOG_CRIT,
                          "Unable to create directory for mail handlers database for(%s): %s",
                          mh_db_path, std::strerror(errno));
        return -1;
    }
    return sqlite_db_create(mh_db_path, SCHEMA, LABEL);
}

int fix_mh_db_permissions(const char* path) noexcept {
    errno = 0;
    const group* const owners = ::getgrnam(POPUSER);
    if (owners == nullptr) {
        corvo::Log().line(LOG_CRIT, "Unable to get mail handlers group uid: %s",
                          errno == 0 ? GROUP_NOT_FOUND : std::strerror(errno));
        return -1;
    }
    corvo::safe_path::PermissionStep failed = {};
    // Whoever writes to the database in this process must keep its locks.
    if (corvo::safe_path::setOwnerAndModeUnopened(AT_FDCWD, path, 0, owners->gr_gid, DATABASE_MODE,
                                                  &failed) == 0)
        return 0;
    if (failed == corvo::safe_path::PermissionStep::chmod)
        corvo::Log().line(LOG_CRIT, "Unable to set permissions on %s: %s", path,
                          std::strerror(errno));
    else
        corvo::Log().line(LOG_CRIT, "Unable to set owner on %s: %s", path, std::strerror(errno));
    return -1;
}

int mh_db_create() noexcept {
    if (mh_db_create_no_set_permissions() != 0)
        return -1;
    if (fix_mh_db_permissions(mh_db_path) == 0)
        return 0;
    const corvo::ErrnoGuard keepErrno;
    (void)corvo::safe_path::unlinkEntry(AT_FDCWD, mh_db_path);
    return -1;
}
