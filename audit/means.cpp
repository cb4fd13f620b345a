#include "audit/means.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "audit/disk.h"
#include "audit/item.h"
#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/delivery_file.h"
#include "mail/home/skeleton.h"
#include "mail/quota/maildirsize_file.h"
#include "utils/accounts.h"
#include "utils/file_lock.h"
#include "utils/runtime_config.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

void hide(Means& means, const char* path, int error) {
    means.hidden = std::string(path) + ": " + std::strerror(error);
}

// One that is hidden may be the one that a run finds.
void findAgent(Means& means) {
    means.hasAgent = mail::searchDeliveryAgent().kind != DELIVERY_AGENT_UNKNOWN;
    if (means.hasAgent)
        return;
    for (const mail::DeliveryAgent& agent : mail::DELIVERY_AGENTS) {
        struct stat seen = {};
        if (::stat(agent.path, &seen) != 0 && isWantOfRights(errno))  // a root-owned path
            hide(means, agent.path, errno);
    }
}

// That it is root's alone does not keep a run out.
void findLocks(Means& means) {
    means.hasLocks = static_cast<bool>(safe_path::openDirectory(AT_FDCWD, LOCK_FOLDER));
    if (means.hasLocks || !isWantOfRights(errno))
        return;
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, LOCK_FOLDER, seen) == 0)
        means.hasLocks = S_ISDIR(seen.st_mode);
    else
        hide(means, LOCK_FOLDER, errno);
}

// EPERM is for a hard link, which a run refuses, too.
void findDeliveryLine(Means& means) {
    if (const mail::DefaultDelivery found = mail::readDefaultDelivery(); found.line)
        means.deliveryLine = found.line.get();
    else if (found.error == EACCES)
        hide(means, DEFAULT_DELIVERY_FILE, found.error);
}

}  // namespace

bool Means::hasDeliveryLine() const {
    return deliveryLine && !deliveryLine->empty();
}

Means findMeans() {
    Means means = {};
    if (!mail::findDeliveryOwnership(means.delivery))
        throw std::runtime_error(std::string("there is no account ") + POPUSER +
                                 ", so that no run is possible: nothing was compared");
    const mail::Ownership& owner = means.delivery;
    means.domainRoot = {owner.uid, owner.gid, mail::DOMAIN_ROOT_MODE};
    means.home = {owner.uid, owner.gid, mail::HOME_MODE};
    means.maildirsize = mail::maildirsizeOwnership(owner.uid, owner.gid);
    means.isReadOnly = isOnReadOnlyDisk(vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D));
    findAgent(means);
    findLocks(means);
    findDeliveryLine(means);
    return means;
}

}  // namespace corvo::audit
