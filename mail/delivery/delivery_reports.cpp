#include "mail/delivery/delivery_reports.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "utils/guards.h"
#include "utils/log.h"
#include "utils/messlog.h"

namespace corvo::mail {

namespace {

struct NewFile {
    explicit NewFile(const char* old) noexcept {
        (void)std::snprintf(path, sizeof path, "%s.tmp", old);
    }
    char path[PATH_MAX + sizeof ".tmp"];
};

}  // namespace

int reportUnopened(const char* path) noexcept {
    Log().line(LOG_ERR, "Unable to open '%s': %s", path, std::strerror(errno));
    return -1;
}

int reportUnwritten(const char* path) noexcept {
    Log().line(LOG_ERR, "Unable to write to '%s': %s", path, std::strerror(errno));
    return -1;
}

int reportNewUnopened(const char* path) noexcept {
    const ErrnoGuard keepErrno;
    (void)std::fprintf(stderr, MESSLOG_UNABLE_TO_OPEN, NewFile(path).path, std::strerror(errno));
    return -1;
}

int reportNewUnwritten(const char* path) noexcept {
    messlog2(0, 0, "Unable to close file %s: %s\n", NewFile(path).path, std::strerror(errno));
    return -1;
}

int reportNotCleared(const char* path) noexcept {
    Log().line(LOG_WARNING, "Unable to remove old delivery strings from '%s'", path);
    return -1;
}

int reportNotDelivering(const char* path) noexcept {
    Log().line(LOG_ERR, "Unable to add delivery string to '%s'", path);
    return -1;
}

}  // namespace corvo::mail
