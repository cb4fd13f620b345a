#include "mail/delivery/delivery_agent.h"

#include <sys/stat.h>

#include <cerrno>

#include "utils/guards.h"
#include "utils/log.h"

namespace {

struct DeliveryAgent {
    int kind;
    const char* path;
};

// In the order of preference.
constexpr DeliveryAgent DELIVERY_AGENTS[] = {
    {DELIVERY_AGENT_DELIVERQUOTA, "/usr/bin/deliverquota"},
    {DELIVERY_AGENT_DOVECOT, "/usr/libexec/dovecot/dovecot-lda"},
};

bool isExecutable(const struct stat& file) noexcept {
    return S_ISREG(file.st_mode) && (file.st_mode & 0111) != 0;
}

int detect() noexcept {
    for (const DeliveryAgent& agent : DELIVERY_AGENTS) {
        struct stat file {};
        if (::stat(agent.path, &file) != 0)  // a root-owned path
            continue;
        if (isExecutable(file))
            return agent.kind;
        corvo_log(3,
                  "Unable to detect IMAP/POP3 server type - LDA is present at '%s' but is not a "
                  "regular file or is not executable",
                  agent.path);
        errno = EACCES;
        return DELIVERY_AGENT_UNKNOWN;
    }
    const corvo::ErrnoGuard keepErrno;
    corvo_log(3, "Unable to detect IMAP/POP3 server type - no LDA found");
    return DELIVERY_AGENT_UNKNOWN;
}

}  // namespace

int detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;

int detectImapPop3Server() noexcept {
    if (detectedImapPop3Server == DELIVERY_AGENT_UNKNOWN)
        detectedImapPop3Server = detect();
    return detectedImapPop3Server;
}
