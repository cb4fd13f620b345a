// What the walker reports, and to whom.

#pragma once

#include <boost/function.hpp>
#include <string>
#include <vector>

namespace corvo::mail::restore {

/// The slots that receive what the panel database says about mail. An empty slot means that the
/// entity is not wanted; the walker then skips the work that would feed it. Slots are called
/// synchronously, in the order in which rows are read, and may throw. Names come in the order
/// domain, mail name, in lower case as the database gives them. Flags called "...Off" are true when
/// a status value is not 0.
struct MailsrvEntitiesCallbacks {
    using Name = const std::string&;

    boost::function<void(Name domain, bool off)> registerDomain;
    boost::function<void(Name domain, Name alias, bool aliasOff, bool domainOff)>
        registerDomainAlias;
    /// Mode 0: no catch-all (value empty); 1: bounce with the message `value`; 2: catch into the
    /// address `value`, in ASCII form.
    boost::function<void(Name domain, int mode, Name value)> setDomainCatchall;
    boost::function<void(Name domain, Name certificateFile)> registerDomainCertificate;
    boost::function<void(Name domain, Name mailname)> registerMailname;
    boost::function<void(Name domain, Name mailname, Name alias, bool domainOff)> registerMailAlias;
    /// A mail group's forwarding address, in ASCII form.
    boost::function<void(Name domain, Name mailname, Name address)> registerMailRedirect;
    /// Never called; a bound slot only makes the domain cycle run.
    boost::function<void(Name domain, Name mailname, Name address)> registerMailForwarding;
    boost::function<void(Name address, int mask)> addWhiteListNetwork;
    /// In ASCII form.
    boost::function<void(Name domain)> addBlackListedDomain;
    boost::function<void(const std::vector<std::string>& servers)> setRBLServers;
    boost::function<void(bool enabled)> setSubmissionEnabled;
    /// In bytes.
    boost::function<void(long long size)> setMaxMessageSize;
    /// Relay mode 0: open, 1: closed, 2: after authentication; lock time in minutes.
    boost::function<void(int relayMode, bool smtpAuth, bool popBeforeSmtp, short lockTime)>
        setSmtpRelayAndAuth;
    boost::function<void(bool pop3Names, bool mailNames)> setShortNamesAuth;
    /// Called for every mail name; the flag is false for one without a mailbox or without delivery.
    boost::function<void(Name domain, Name mailname, bool delivers)> registerMailbox;
    /// In the panel's unit, unchanged. -1 when neither the mail name nor its domain has one.
    boost::function<void(Name domain, Name mailname, long long quota)> setMailboxQuota;
    boost::function<void(bool reject, bool permanently)> enableRejectOverquota;
    boost::function<void()> restoreRecipientCanonical;
};

}  // namespace corvo::mail::restore
