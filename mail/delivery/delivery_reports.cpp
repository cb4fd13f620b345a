#include "mail/delivery/delivery_reports.h"

#include <cerrno>
#include <cstring>

#include "utils/log.h"

namespace corvo::mail {

int reportUnopened(const char* path) noexcept {
    Log().line(LOG_ERR, "Unable to open '%s': %s", path, std::strerror(errno));
    return -1;
}

int reportUnwritten(const char* path) noexcept {
    Log().line(LOG_ERR, "Unable to write to '%s': %s", path, std::strerror(errno));
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
