#include "restore/walker.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "lib/db++/connection.h"
#include "restore/domain_cycle.h"
#include "restore/reports.h"
#include "restore/server_lists.h"
#include "restore/server_settings.h"
#include "restore/stage.h"

namespace corvo::mail::restore {

namespace {

using Callbacks = MailsrvEntitiesCallbacks;
using mysql::Connection;

struct Step {
    bool (*isWanted)(const Callbacks& callbacks);
    const char* label;
    void (*run)(const std::string& label, const Work& work);
    void (*restore)(Callbacks& callbacks, Connection& connection);
};

// Whether any of the slots is bound.
template <auto... slots>
bool anyOf(const Callbacks& callbacks) {
    return (... || !(callbacks.*slots).empty());
}

constexpr Step STEPS[] = {
    {anyOf<&Callbacks::registerDomain, &Callbacks::registerDomainAlias,
           &Callbacks::setDomainCatchall, &Callbacks::registerMailname,
           &Callbacks::registerMailAlias, &Callbacks::registerMailRedirect,
           &Callbacks::registerMailForwarding, &Callbacks::registerMailbox,
           &Callbacks::setMailboxQuota>,
     " executing the central domain restoration cycle", runCycleStep, processDomainCycle},
    {anyOf<&Callbacks::registerDomainCertificate>,
     " executing the central domain mail certificates restoration cycle", runCycleStep,
     processDomainCertsCycle},
    {anyOf<&Callbacks::addWhiteListNetwork>, " executing the whitelist networks restoration cycle",
     runStep, processWhiteLists},
    {anyOf<&Callbacks::addBlackListedDomain>,
     " executing the blacklisted domains restoration cycle", runStep, processBlackListedDomains},
    {anyOf<&Callbacks::setRBLServers>, " restoring the RBL servers configuration", runStep,
     processRBLServersLists},
    {anyOf<&Callbacks::setSubmissionEnabled>, " restoring the submission service configuration",
     runStep, restoreSubmission},
    {anyOf<&Callbacks::setMaxMessageSize>, " restoring maximal message size limit", runStep,
     restoreMaxMessageSize},
    {anyOf<&Callbacks::setSmtpRelayAndAuth>, " restoring SMTP Relaying and Authentication options",
     runStep, restoreSmtpRelayAndAuth},
    {anyOf<&Callbacks::setShortNamesAuth>,
     " restoring short names authentication option (if applicable)", runStep,
     restoreShortNamesAuth},
    {anyOf<&Callbacks::enableRejectOverquota>,
     " restoring mail rejection when mailbox is over quota", runStep, restoreOverquotaRejection},
    {anyOf<&Callbacks::restoreRecipientCanonical>, " restoring the recipient canonical mapper",
     runStep, restoreRecipientCanonicalMapper},
};

bool isDebugWanted() {
    const char* value = std::getenv("CORVO_INSTALLER_DEBUG");
    return value != nullptr && std::string_view(value) != "0";
}

}  // namespace

void walkMailServerEntities(MailsrvEntitiesCallbacks& callbacks) {
    Connection connection(/*open_now=*/true);
    walkMailServerEntities(callbacks, connection);
}

void walkMailServerEntities(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    isDebug = isDebugWanted();
    resetReportCount();
    domainsOfCycle = 0;
    progress("Restoring Mail Server Entities from Corvo DB:\n");
    bool isFirst = true;
    for (const Step& step : STEPS) {
        if (!step.isWanted(callbacks))
            continue;
        // A step may take longer than the server bears with an idle connection.
        if (!std::exchange(isFirst, false))
            connection.reopenIfLost();
        step.run(step.label, [&] { step.restore(callbacks, connection); });
    }
}

std::size_t domainsOfWalk() noexcept {
    return domainsOfCycle;
}

std::size_t reportsOfLastWalk() noexcept {
    return reportCount();
}

}  // namespace corvo::mail::restore
