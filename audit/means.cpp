#include "audit/means.h"

#include <fcntl.h>
#include <pwd.h>

#include <stdexcept>

#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/delivery_file.h"
#include "mail/home/skeleton.h"
#include "mail/quota/maildirsize_file.h"
#include "utils/accounts.h"
#include "utils/file_lock.h"
#include "utils/safe_path.h"

namespace corvo::audit {

std::string Means::lineToInstall() const {
    return hasAgent && hasLocks && deliveryLine ? *deliveryLine : std::string();
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
    means.hasAgent = mail::searchDeliveryAgent().kind != DELIVERY_AGENT_UNKNOWN;
    means.hasLocks = static_cast<bool>(safe_path::openDirectory(AT_FDCWD, LOCK_FOLDER));
    if (const mail::DefaultDelivery found = mail::readDefaultDelivery(); found.line)
        means.deliveryLine = found.line.get();
    return means;
}

}  // namespace corvo::audit
