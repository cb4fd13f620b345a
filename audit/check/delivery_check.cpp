#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "audit/check/checks.h"
#include "audit/check/subject.h"
#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"

namespace corvo::audit {

namespace {

using mail::DELIVERY_AGENTS;
using mail::DeliveryAgent;

std::string pathOf(int kind) {
    const auto* const agent =
        std::find_if(std::begin(DELIVERY_AGENTS), std::end(DELIVERY_AGENTS),
                     [&](const DeliveryAgent& candidate) { return candidate.kind == kind; });
    return agent->path;
}

void checkAgent(const Subject& agent) {
    const mail::AgentSearch found = mail::searchDeliveryAgent();
    if (found.kind != DELIVERY_AGENT_UNKNOWN)
        agent.ok(pathOf(found.kind));
    else if (found.unusable != nullptr)
        agent.problem(std::string(found.unusable) + " is no executable file",
                      "install it again: new mailboxes discard their mail without it");
    else
        agent.problem("there is none",
                      "install deliverquota or dovecot-lda: new mailboxes discard "
                      "their mail without it");
}

bool namesInstalledAgent(std::string_view line) {
    return std::any_of(
        std::begin(DELIVERY_AGENTS), std::end(DELIVERY_AGENTS), [&](const DeliveryAgent& agent) {
            return line.find(agent.path) != std::string_view::npos && isInstalled(agent);
        });
}

void checkLine(const Subject& line) {
    const std::string path = DEFAULT_DELIVERY_FILE;
    const mail::DefaultDelivery found = mail::readDefaultDelivery();
    if (!found.line)
        line.problem(path + ": " + std::strerror(found.error),
                     "write the delivery agent's line into it: new mailboxes discard their mail "
                     "without it");
    else if (!namesInstalledAgent(found.line.get()))
        line.warning("names no delivery agent that is installed: " + std::string(found.line.get()),
                     "write the installed agent's line into " + path);
    else
        line.ok(found.line.get());
}

}  // namespace

void checkDelivery(const CheckSink& sink) {
    checkAgent(Subject(sink, "delivery agent"));
    checkLine(Subject(sink, "default delivery line"));
}

}  // namespace corvo::audit
