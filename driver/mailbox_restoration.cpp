#include "driver/mailbox_restoration.h"

#include <boost/bind.hpp>
#include <cstdio>
#include <stdexcept>

#include "driver/check_quota_handler.h"
#include "mail/home/maildir_manager.h"
#include "mail/home/mailname.h"
#include "mail/quota/mail_user_db.h"
#include "mail/quota/maildirpp_quota.h"

namespace corvo {

MailboxRestorationHelper::MailboxRestorationHelper()
    : maildirManager_(&mail::MaildirPPManager::getInstance()) {}

void MailboxRestorationHelper::goTo(const mail::Mailname& mailname) {
    if (at_ && at_->home() == mailname.home())
        return;
    leaveMailname();
    at_ = mailname;
}

void MailboxRestorationHelper::leaveMailname() {
    forwards_.leave();
    if (at_ && at_->isSound())
        flush_.note(at_->home());
    at_.reset();
}

void MailboxRestorationHelper::finish() {
    leaveMailname();
    flush_.flush();
}

void MailboxRestorationHelper::registerDomain(const std::string& domain, bool /*off*/) {
    leaveMailname();
    maildirManager_->createDomainRoot(domain);
    flush_.note(maildirManager_->getDomainRoot(domain));
}

void MailboxRestorationHelper::registerMailbox(const std::string& domain,
                                               const std::string& mailname, bool enable) {
    const mail::Mailname name(domain, mailname);
    leaveMailname();
    at_ = name;
    maildirManager_->createMailnameHome(name);
    forwards_.restore(name, enable);
}

void MailboxRestorationHelper::registerMailRedirect(const std::string& domain,
                                                    const std::string& mailname,
                                                    const std::string& target) {
    const mail::Mailname name(domain, mailname);
    goTo(name);
    forwards_.name(name, target);
}

void MailboxRestorationHelper::setMailboxQuota(const std::string& domain,
                                               const std::string& mailname, long quota) {
    (void)std::fprintf(stderr, "DEBUG setMailboxQuota(..., %lld)\n", static_cast<long long>(quota));
    const mail::Mailname name(domain, mailname);
    goTo(name);
    if (store_mbox_quota(name.plainDomain(), name.plainName(), quota) == 0)
        throw std::runtime_error("Unable to store mbox quota");
    mail::MailUserDbHelper userDb("");
    if (!userDb.userdbStoreMboxQuota(domain, mailname, quota))
        throw std::runtime_error(
            "Unable to store mbox quota in userdb on mailbox quota restoration for '" + mailname +
            "@" + domain + "'");
}

void MailboxRestorationHelper::enableRejectOverquota(bool reject, bool permanent) {
    leaveMailname();
    if (restore_check_quota_handler(reject ? 1 : 0, permanent ? 1 : 0) != 0)
        throw std::runtime_error("Restore check-quota mail handler");
}

MailboxRestorationAdaptor::MailboxRestorationAdaptor(RestoreMode mode) {
    switch (mode) {
        case RestoreModeAll:
            bindStorage();
            bindHandlers();
            break;
        case RestoreModeHandlersOnly:
            bindHandlers();
            break;
    }
}

void MailboxRestorationAdaptor::bindStorage() {
    using Helper = MailboxRestorationHelper;
    Helper* const helper = this;
    slots_.registerDomain = boost::bind(&Helper::registerDomain, helper, _1, _2);
    slots_.registerMailbox = boost::bind(&Helper::registerMailbox, helper, _1, _2, _3);
    slots_.setMailboxQuota = boost::bind(&Helper::setMailboxQuota, helper, _1, _2, _3);
    slots_.registerMailForwarding = boost::bind(&Helper::registerMailRedirect, helper, _1, _2, _3);
    slots_.registerMailRedirect = boost::bind(&Helper::registerMailRedirect, helper, _1, _2, _3);
}

void MailboxRestorationAdaptor::bindHandlers() {
    using Helper = MailboxRestorationHelper;
    Helper* const helper = this;
    slots_.enableRejectOverquota = boost::bind(&Helper::enableRejectOverquota, helper, _1, _2);
}

}  // namespace corvo
