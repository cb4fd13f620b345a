#include "driver/mailbox_restoration.h"

#include <boost/bind.hpp>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "driver/check_quota_handler.h"
#include "mail/delivery/dotqmail_manager.h"
#include "mail/home/maildir_manager.h"
#include "mail/quota/mail_user_db.h"
#include "mail/quota/maildirpp_quota.h"

namespace corvo {

namespace {

// To a plain function a name with a zero byte would be another name: its beginning. The empty name
// is refused by all of them.
const char* plainName(const std::string& name) {
    return name.find('\0') == std::string::npos ? name.c_str() : "";
}

}  // namespace

MailboxRestorationHelper::MailboxRestorationHelper()
    : maildirManager(&mail::MaildirPPManager::getInstance()) {}

void MailboxRestorationHelper::registerDomain(const std::string& domain, bool /*off*/) {
    maildirManager->createDomainRoot(domain);
}

mail::DotQMailManager MailboxRestorationHelper::deliveryFile(const std::string& domain,
                                                             const std::string& mailname) const {
    return mail::DotQMailManager::inHome(maildirManager->getMailnameHome(domain, mailname));
}

void MailboxRestorationHelper::registerMailbox(const std::string& domain,
                                               const std::string& mailname, bool enable) {
    maildirManager->createMailnameHome(domain, mailname);
    mail::DotQMailManager dotqmail = deliveryFile(domain, mailname);
    dotqmail.reset();
    if (enable)
        dotqmail.enableDelivery();
}

void MailboxRestorationHelper::registerMailRedirect(const std::string& domain,
                                                    const std::string& mailname,
                                                    const std::string& target) {
    deliveryFile(domain, mailname).addRedirect(target, mail::DotQMailManager::Position::anywhere);
}

void MailboxRestorationHelper::setMailboxQuota(const std::string& domain,
                                               const std::string& mailname, long quota) {
    (void)std::fprintf(stderr, "DEBUG setMailboxQuota(..., %lld)\n", static_cast<long long>(quota));
    if (store_mbox_quota(plainName(domain), plainName(mailname), quota) == 0)
        throw std::runtime_error("Unable to store mbox quota");
    mail::MailUserDbHelper userDb("");
    if (!userDb.userdbStoreMboxQuota(domain, mailname, quota))
        throw std::runtime_error(
            "Unable to store mbox quota in userdb on mailbox quota restoration for '" + mailname +
            "@" + domain + "'");
}

void MailboxRestorationHelper::enableRejectOverquota(bool reject, bool permanent) {
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
    slots.registerDomain = boost::bind(&Helper::registerDomain, helper, _1, _2);
    slots.registerMailbox = boost::bind(&Helper::registerMailbox, helper, _1, _2, _3);
    slots.setMailboxQuota = boost::bind(&Helper::setMailboxQuota, helper, _1, _2, _3);
    slots.registerMailForwarding = boost::bind(&Helper::registerMailRedirect, helper, _1, _2, _3);
    slots.registerMailRedirect = boost::bind(&Helper::registerMailRedirect, helper, _1, _2, _3);
}

void MailboxRestorationAdaptor::bindHandlers() {
    using Helper = MailboxRestorationHelper;
    Helper* const helper = this;
    slots.enableRejectOverquota = boost::bind(&Helper::enableRejectOverquota, helper, _1, _2);
}

}  // namespace corvo
