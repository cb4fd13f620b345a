#include "restore/domain_cycle.h"

#include <boost/lexical_cast.hpp>
#include <string>

#include "restore/mailname_cycle.h"
#include "restore/patient_connector.h"
#include "restore/rows.h"
#include "restore/stage.h"
#include "utils/idn.h"

namespace corvo::mail::restore {

std::size_t domainsOfCycle = 0;

namespace {

using mysql::Connection;

enum CatchallMode { CATCHALL_NONE = 0, CATCHALL_BOUNCE = 1, CATCHALL_CATCH = 2 };

// Throws boost::bad_lexical_cast for anything but a decimal number.
bool isOff(const mysql::Field& status) {
    return boost::lexical_cast<long long>(status.value) != 0;
}

// What happens to mail for unknown recipients is asked again on the domain's own connection; here
// its column must merely exist.
Domain readDomain(Row& row) {
    Domain domain{row["id"].value, row["name"].value, isOff(row["status"])};
    (void)row["nonExisting"];
    return domain;
}

// A parameter of the domain's mail service, its e-mail domain in ASCII form; empty when there is
// none.
std::string getDomainCatchallParam(const std::string& domainId, const std::string& domainName,
                                   const std::string& parameterName, Connection& connection) {
    Rows rows(connection,
              "SELECT p.value AS value "
              " FROM Parameters p, DomainServices ds "
              "   WHERE p.id = ds.parameters_id "
              "     AND p.parameter='" +
                  parameterName +
                  "' "
                  "     AND ds.type='mail' "
                  "     AND ds.dom_id=" +
                  domainId,
              {"Domain Catcall configuration for domain " + domainName});  // sic
    Row row;
    return rows.fetchOnce(row) ? idn::emailToAscii(row["value"].value) : std::string();
}

// Off only when the database says so.
bool isMailOn(const Domain& domain, Connection& connection) {
    Rows rows(connection,
              "SELECT status FROM DomainServices WHERE type='mail' AND dom_id=" + domain.id,
              {"Domain Mail status detection for domain " + domain.name});
    bool on = true;
    Row row;
    while (rows.next(row))
        on = row["status"].value == "0";
    return on;
}

void reportCatchall(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                    Connection& connection) {
    const auto parameter = [&](const char* name) {
        return getDomainCatchallParam(domain.id, domain.name, name, connection);
    };
    const auto report = [&](CatchallMode mode, const std::string& value) {
        callbacks.setDomainCatchall(domain.name, value.empty() ? CATCHALL_NONE : mode, value);
    };
    const std::string mode = parameter("nonexist_mail");
    const bool on = isMailOn(domain, connection);
    if (on && mode == "bounce")
        report(CATCHALL_BOUNCE, parameter("bounce_mess"));
    else if (on && mode == "catch")
        report(CATCHALL_CATCH, parameter("catch_addr"));
    else
        report(CATCHALL_NONE, "");
}

void reportAliases(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                   Connection& connection) {
    Rows rows(connection,
              "SELECT    LOWER(name) AS name, status FROM domain_aliases WHERE dom_id='" +
                  domain.id + "'   AND mail='true'",
              {"Domains Alias cycle for domain " + domain.name});
    Row row;
    while (rows.next(row)) {
        const bool off = isOff(row["status"]);
        callbacks.registerDomainAlias(domain.name, row["name"].value, off, domain.off);
    }
}

// False when the domain could not be registered and nothing more must be said of it.
bool registerBasics(const Domain& domain, MailsrvEntitiesCallbacks& callbacks) {
    if (!callbacks.registerDomain)
        return true;
    return attempt("  restoring basic records for " + domain.name,
                   [&] { callbacks.registerDomain(domain.name, domain.off); });
}

void restoreCatchall(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                     Connection& connection) {
    if (!callbacks.setDomainCatchall)
        return;
    runStage("  restoring catchall/reject settings for " + domain.name,
             [&] { reportCatchall(domain, callbacks, connection); });
}

void restoreAliases(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                    Connection& connection) {
    if (!callbacks.registerDomainAlias)
        return;
    runStage("  restoring domain aliases for " + domain.name,
             [&] { reportAliases(domain, callbacks, connection); });
}

void restoreMailnames(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                      Connection& connection, PatientConnector& connector) {
    runCycleStage("  executing mailnames restoration cycle for " + domain.name,
                  [&] { processMailnamesCycle(domain, callbacks, connection, connector); });
}

}  // namespace

void processDomainCycle(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection,
              "SELECT    d.id AS id, LOWER(d.name) AS name, "
              "  s.status AS status, "
              "  p.value AS nonExisting "
              "FROM domains d, DomainServices s, Parameters p "
              "   WHERE d.id=s.dom_id AND s.type='mail' "
              "     AND p.id=s.parameters_id AND p.parameter='nonexist_mail'",
              {.name = "top Domains cycle", .skipMark = "!"});
    domainsOfCycle = rows.size();
    PatientConnector connector;
    Row row;
    while (rows.next(row)) {
        progress("+");
        const Domain domain = readDomain(row);
        if (!registerBasics(domain, callbacks))
            continue;
        Connection inner = connector.open();
        restoreCatchall(domain, callbacks, inner);
        restoreAliases(domain, callbacks, inner);
        restoreMailnames(domain, callbacks, inner, connector);
    }
}

}  // namespace corvo::mail::restore
