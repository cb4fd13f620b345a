// The local delivery agent of this server.

#pragma once

/// What detectImapPop3Server() tells.
inline constexpr int DELIVERY_AGENT_UNKNOWN = -1;
inline constexpr int DELIVERY_AGENT_DELIVERQUOTA = 0;
inline constexpr int DELIVERY_AGENT_DOVECOT = 1;

/// What was detected in this process, and DELIVERY_AGENT_UNKNOWN before.
extern int detectedImapPop3Server;

/// Which delivery agent is installed; links are followed. What was found is kept
/// in detectedImapPop3Server. A failure is logged at priority 3 and not kept; errno is then ENOENT
/// (or why an agent could not be looked up), or EACCES for one that is no executable file.
int detectImapPop3Server() noexcept;

namespace corvo::mail {

struct DeliveryAgent {
    int kind;  // as detectImapPop3Server tells
    const char* path;
};

/// All that there are, in the order of preference.
inline constexpr DeliveryAgent DELIVERY_AGENTS[] = {
    {DELIVERY_AGENT_DELIVERQUOTA, "/usr/bin/deliverquota"},
    {DELIVERY_AGENT_DOVECOT, "/usr/libexec/dovecot/dovecot-lda"},
};

/// Whether there is an executable file in its place; links are followed. Logs nothing.
[[nodiscard]] bool isInstalled(const DeliveryAgent& agent) noexcept;

/// What a look for the delivery agent came to.
struct AgentSearch {
    int kind;              // as detectImapPop3Server tells
    const char* unusable;  // an agent that is no executable file; null when there is none at all
    int error;             // an errno, unless the kind is known
};

/// detectImapPop3Server that logs nothing.
AgentSearch searchDeliveryAgent() noexcept;

/// Logs why no agent was found. errno is the search's afterwards.
void reportMissingAgent(const AgentSearch& search) noexcept;

}  // namespace corvo::mail
