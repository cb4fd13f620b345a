// The 19 slots of a callback set, one after the other.

#pragma once

#include "restore/entities_callbacks.h"

namespace corvo::test {

/// Calls visit(name, slot) for every slot, in the order of their declaration.
template <typename Visit>
void forEachSlot(mail::restore::MailsrvEntitiesCallbacks& callbacks, Visit visit) {
    visit("registerDomain", callbacks.registerDomain);
    visit("registerDomainAlias", callbacks.registerDomainAlias);
    visit("setDomainCatchall", callbacks.setDomainCatchall);
    visit("registerDomainCertificate", callbacks.registerDomainCertificate);
    visit("registerMailname", callbacks.registerMailname);
    visit("registerMailAlias", callbacks.registerMailAlias);
    visit("registerMailRedirect", callbacks.registerMailRedirect);
    visit("registerMailForwarding", callbacks.registerMailForwarding);
    visit("addWhiteListNetwork", callbacks.addWhiteListNetwork);
    visit("addBlackListedDomain", callbacks.addBlackListedDomain);
    visit("setRBLServers", callbacks.setRBLServers);
    visit("setSubmissionEnabled", callbacks.setSubmissionEnabled);
    visit("setMaxMessageSize", callbacks.setMaxMessageSize);
    visit("setSmtpRelayAndAuth", callbacks.setSmtpRelayAndAuth);
    visit("setShortNamesAuth", callbacks.setShortNamesAuth);
    visit("registerMailbox", callbacks.registerMailbox);
    visit("setMailboxQuota", callbacks.setMailboxQuota);
    visit("enableRejectOverquota", callbacks.enableRejectOverquota);
    visit("restoreRecipientCanonical", callbacks.restoreRecipientCanonical);
}

}  // namespace corvo::test
