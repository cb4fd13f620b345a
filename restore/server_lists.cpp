#include "restore/server_lists.h"

#include <boost/algorithm/string/split.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "restore/reports.h"
#include "restore/rows.h"
#include "restore/server_parameters.h"
#include "utils/idn.h"
#include "utils/numeric.h"

namespace corvo::mail::restore {

namespace {

using mysql::Connection;

constexpr unsigned SINGLE_HOST_MASK = 32;

CycleLabel listLabel(const char* name) {
    return {name, ": "};
}

int maskOf(const std::string& text) {
    unsigned mask = 0;
    if (!Util::ASCIIToNumeric(text.c_str(), mask))
        mask = SINGLE_HOST_MASK;
    return static_cast<int>(mask);  // out of range or not: whoever uses the mask judges it
}

// Empty, after a warning, when there is no ASCII form.
std::optional<std::string> asciiOrWarn(const std::string& domain) {
    try {
        return idn::toAscii(domain);
    } catch (const std::exception& error) {
        warning() << "Warning: unable to de-IDN'ize domain name '" << domain
                  << "': " << error.what() << ", ignored" << std::endl;
        return std::nullopt;
    }
}

bool isSeparator(char c) {
    return std::string_view(" \t;,").find(c) != std::string_view::npos;
}

// Without the empty pieces between and beside separators.
std::vector<std::string> splitServers(const std::string& text) {
    std::vector<std::string> servers;
    boost::split(servers, text, isSeparator);
    std::erase(servers, "");
    return servers;
}

}  // namespace

void processDomainCertsCycle(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection,
              "SELECT   LOWER(d.name) AS name, c.cert_file AS certFile "
              "FROM   domains d, DomainServices s, certificates c, Parameters p "
              "WHERE   d.id=s.dom_id AND s.type='mail' AND p.id=s.parameters_id "
              "   AND p.parameter='mail_certificate_id' AND p.value=c.id "
              "UNION ALL "
              "SELECT   LOWER(da.name) AS name, c.cert_file AS certFile "
              "FROM   domains d, domain_aliases da, DomainServices s, certificates c, Parameters p "
              "WHERE   d.id=da.dom_id AND da.mail='true' "
              "   AND d.id=s.dom_id AND s.type='mail' AND p.id=s.parameters_id "
              "   AND p.parameter='mail_certificate_id' AND p.value=c.id",
              listLabel("top Domains Certificates cycle"));
    Row row;
    while (rows.next(row)) {
        const std::string& name = row["name"].value;
        const std::string& file = row["certFile"].value;
        callbacks.registerDomainCertificate(name, file);
        callbacks.registerDomainCertificate("mail." + name, file);
    }
}

void processWhiteLists(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection, "SELECT ip_address, ip_mask FROM smtp_poplocks WHERE lock_time IS NULL",
              listLabel("White IPs/Networks cycle"));
    Row row;
    while (rows.next(row)) {
        const mysql::Field& address = row["ip_address"];
        const mysql::Field& mask = row["ip_mask"];
        if (!address.null && !mask.null)
            callbacks.addWhiteListNetwork(address.value, maskOf(mask.value));
    }
}

void processBlackListedDomains(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    Rows rows(connection, "SELECT domain from badmailfrom", listLabel("Blacklisted Domains cycle"));
    Row row;
    while (rows.next(row)) {
        if (const auto domain = asciiOrWarn(row["domain"].value))
            callbacks.addBlackListedDomain(*domain);
    }
}

void processRBLServersLists(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    std::string servers;
    try {
        servers = getStringMailServerParam("rbl_server", connection).value;
    } catch (const mysql::mError& error) {
        warning() << "Warning: MySQL Error on RBL Servers query: " << error.what() << ", ignored"
                  << std::endl;
        return;
    }
    callbacks.setRBLServers(splitServers(servers));
}

}  // namespace corvo::mail::restore
