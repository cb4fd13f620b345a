#include "mail/delivery/delivery_agent.h"

#include <sys/stat.h>

#include <cerrno>

#include "utils/log.h"

namespace {

using corvo::mail::AgentSearch;
using corvo::mail::DELIVERY_AGENTS;
using corvo::mail::DeliveryAgent;

bool isExecutable(const struct stat& file) noexcept {
    return S_ISREG(file.st_mode) && (file.st_mode & 0111) != 0;
}

AgentSearch search() noexcept {
    for (const DeliveryAgent& agent : DELIVERY_AGENTS) {
        struct stat file = {};
        if (::stat(agent.path, &file) != 0)  // a root-owned path
            continue;
        if (isExecutable(file))
            return {agent.kind, nullptr, 0};
        return {DELIVERY_AGENT_UNKNOWN, agent.path, EACCES};
    }
    return {DELIVERY_AGENT_UNKNOWN, nullptr, errno};
}

}  // namespace

int detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;

int detectImapPop3Server() noexcept {
    const AgentSearch found = corvo::mail::searchDeliveryAgent();
    if (found.kind == DELIVERY_AGENT_UNKNOWN)
        reportMissingAgent(found);
    return found.kind;
}

namespace corvo::mail {

bool isInstalled(const DeliveryAgent& agent) noexcept {
    struct stat file = {};
    return ::stat(agent.path, &file) == 0 && isExecutable(file);  // a root-owned path
}

AgentSearch searchDeliveryAgent() noexcept {
    if (detectedImapPop3Server != DELIVERY_AGENT_UNKNOWN)
        return {detectedImapPop3Server, nullptr, 0};
    const AgentSearch found = search();
    detectedImapPop3Server = found.kind;
    return found;
}

void reportMissingAgent(const AgentSearch& search) noexcept {
    if (search.unusable != nullptr)
        Log().line(LOG_ERR,
                   "Unable to detect IMAP/POP3 server type - LDA is present at '%s' but is not a "
                   "regular file or is not executable",
                   search.unusable);
    else
        Log().line(LOG_ERR, "Unable to detect IMAP/POP3 server type - no LDA found");
    errno = search.error;
}

}  // namespace corvo::mail
