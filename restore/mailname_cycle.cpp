#include "restore/mailname_cycle.h"

#include "restore/numbers.h"
#include "restore/rows.h"
#include "restore/stage.h"
#include "utils/idn.h"

namespace corvo::mail::restore {

namespace {

using mysql::Connection;

// Of a mail name: take the domain's default. Of a domain: no limit is known.
constexpr long long NO_QUOTA = -1;

struct Mailname {
    std::string id;  // as read; pasted into statements
    std::string name;
    std::string address;  // name@domain
    bool delivers = false;
    bool isGroup = false;
    std::string quota;  // as read
};

Mailname readMailname(Row& row, const Domain& domain) {
    const std::string& name = row["mail_name"].value;
    return {.id = row["id"].value,
            .name = name,
            .address = name + "@" + domain.name,
            .delivers = row["postbox"].value == "true" && row["delivery"].value == "true",
            .isGroup = row["mail_group"].value == "true",
            .quota = row["mbox_quota"].value};
}

long long readDefaultQuota(const Domain& domain, Connection& connection) {
    Rows rows(connection,
              "SELECT l.value AS value "
              " FROM SubscriptionProperties as sp, Subscriptions as s, domains as d, Limits l "
              " WHERE sp.subscription_id=s.id "
              "   AND object_type='domain' AND d.id=s.object_id "
              "   AND sp.name='limitsId' AND l.id=sp.value "
              "   AND l.limit_name='mbox_quota' AND d.id=" +
                  domain.id,
              {"Default Mailbox Quota for " + domain.name});
    Row row;
    if (!rows.fetchOnce(row))
        return NO_QUOTA;
    return numberOrWarn<long long>(row["value"].value, "default mailbox quota value")
        .value_or(NO_QUOTA);
}

long long quotaOf(const Mailname& mailname, long long defaultQuota) {
    const long long quota =
        numberOrWarn<long long>(mailname.quota, "mailbox quota value").value_or(NO_QUOTA);
    return quota == NO_QUOTA ? defaultQuota : quota;
}

void processMailAliasesCycle(const Mailname& mailname, const Domain& domain,
                             MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection,
              "SELECT LOWER(alias) AS alias FROM mail_aliases WHERE mn_id=" + mailname.id,
              {"Mail Aliases cycle for " + mailname.address});
    Row row;
    while (rows.next(row))
        callbacks.registerMailAlias(domain.name, mailname.name, row["alias"].value, domain.off);
}

void processMailRedirectsCycle(const Mailname& mailname, const Domain& domain,
                               MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection, "SELECT address FROM mail_redir WHERE mn_id=" + mailname.id,
              {"Mail Forwards cycle for " + mailname.address});
    Row row;
    while (rows.next(row))
        callbacks.registerMailRedirect(domain.name, mailname.name,
                                       idn::emailToAscii(row["address"].value));
}

void registerMailname(const Mailname& mailname, const Domain& domain,
                      MailsrvEntitiesCallbacks& callbacks) {
    if (!callbacks.registerMailname)
        return;
    runStage("   registering mailname " + mailname.address,
             [&] { callbacks.registerMailname(domain.name, mailname.name); });
}

void registerMailbox(const Mailname& mailname, const Domain& domain,
                     MailsrvEntitiesCallbacks& callbacks) {
    if (!callbacks.registerMailbox)
        return;
    runStage("   registering mailbox for " + mailname.address,
             [&] { callbacks.registerMailbox(domain.name, mailname.name, mailname.delivers); });
}

void restoreQuota(const Mailname& mailname, const Domain& domain, long long defaultQuota,
                  MailsrvEntitiesCallbacks& callbacks) {
    if (!callbacks.setMailboxQuota)
        return;
    const long long quota = quotaOf(mailname, defaultQuota);
    runStage("   restoring mailbox quota settings for " + mailname.address,
             [&] { callbacks.setMailboxQuota(domain.name, mailname.name, quota); });
}

void restoreAliases(const Mailname& mailname, const Domain& domain,
                    MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    if (!callbacks.registerMailAlias)
        return;
    runStage("    restoring mail aliases for " + mailname.address,
             [&] { processMailAliasesCycle(mailname, domain, callbacks, connection); });
}

// Redirects of a mail name that is no mail group are not in force.
void restoreGroupForwards(const Mailname& mailname, const Domain& domain,
                          MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    if (!callbacks.registerMailRedirect || !mailname.isGroup)
        return;
    runStage("   executing mail group forwarding cycle for " + mailname.address,
             [&] { processMailRedirectsCycle(mailname, domain, callbacks, connection); });
}

}  // namespace

void processMailnamesCycle(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                           Connection& connection, PatientConnector& connector) {
    const long long defaultQuota =
        callbacks.setMailboxQuota ? readDefaultQuota(domain, connection) : NO_QUOTA;
    Rows rows(connection,
              "SELECT id, LOWER(mail_name) AS mail_name, postbox, delivery, mail_group, mbox_quota"
              " FROM mail  WHERE dom_id=" +
                  domain.id,
              {"Mail names cycle for " + domain.name});
    Row row;
    while (rows.next(row)) {
        const Mailname mailname = readMailname(row, domain);
        registerMailname(mailname, domain, callbacks);
        registerMailbox(mailname, domain, callbacks);
        restoreQuota(mailname, domain, defaultQuota, callbacks);
        Connection inner = connector.open();
        restoreAliases(mailname, domain, callbacks, inner);
        restoreGroupForwards(mailname, domain, callbacks, inner);
    }
}

}  // namespace corvo::mail::restore
