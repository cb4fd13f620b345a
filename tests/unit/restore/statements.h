// The statements of a walk.

#pragma once

#include <string>

namespace corvo::test::statement {

inline const std::string DOMAINS =
    "SELECT    d.id AS id, LOWER(d.name) AS name,   s.status AS status,   p.value AS nonExisting "
    "FROM domains d, DomainServices s, Parameters p    WHERE d.id=s.dom_id AND s.type='mail'      "
    "AND p.id=s.parameters_id AND p.parameter='nonexist_mail'";

inline std::string mailStatus(int domain) {
    return "SELECT status FROM DomainServices WHERE type='mail' AND dom_id=" +
           std::to_string(domain);
}

inline std::string domainAliases(int domain) {
    return "SELECT    LOWER(name) AS name, status FROM domain_aliases WHERE dom_id='" +
           std::to_string(domain) + "'   AND mail='true'";
}

inline std::string catchallParameter(const std::string& name, int domain) {
    return "SELECT p.value AS value  FROM Parameters p, DomainServices ds    WHERE p.id = "
           "ds.parameters_id      AND p.parameter='" +
           name + "'      AND ds.type='mail'      AND ds.dom_id=" + std::to_string(domain);
}

inline std::string defaultQuota(int domain) {
    return "SELECT l.value AS value  FROM SubscriptionProperties as sp, Subscriptions as s, "
           "domains as d, Limits l  WHERE sp.subscription_id=s.id    AND object_type='domain' AND "
           "d.id=s.object_id    AND sp.name='limitsId' AND l.id=sp.value    AND "
           "l.limit_name='mbox_quota' AND d.id=" +
           std::to_string(domain);
}

inline std::string mailnames(int domain) {
    return "SELECT id, LOWER(mail_name) AS mail_name, postbox, delivery, mail_group, mbox_quota "
           "FROM mail  WHERE dom_id=" +
           std::to_string(domain);
}

inline std::string mailAliases(int mailname) {
    return "SELECT LOWER(alias) AS alias FROM mail_aliases WHERE mn_id=" + std::to_string(mailname);
}

inline std::string mailRedirects(int mailname) {
    return "SELECT address FROM mail_redir WHERE mn_id=" + std::to_string(mailname);
}

inline const std::string CERTIFICATES =
    "SELECT   LOWER(d.name) AS name, c.cert_file AS certFile FROM   domains d, DomainServices s, "
    "certificates c, Parameters p WHERE   d.id=s.dom_id AND s.type='mail' AND "
    "p.id=s.parameters_id    AND p.parameter='mail_certificate_id' AND p.value=c.id UNION ALL "
    "SELECT   LOWER(da.name) AS name, c.cert_file AS certFile FROM   domains d, domain_aliases "
    "da, DomainServices s, certificates c, Parameters p WHERE   d.id=da.dom_id AND "
    "da.mail='true'    AND d.id=s.dom_id AND s.type='mail' AND p.id=s.parameters_id    AND "
    "p.parameter='mail_certificate_id' AND p.value=c.id";

inline const std::string WHITE_LIST =
    "SELECT ip_address, ip_mask FROM smtp_poplocks WHERE lock_time IS NULL";

inline const std::string BLACK_LIST = "SELECT domain from badmailfrom";

inline std::string misc(const std::string& name) {
    return "SELECT    val  FROM misc    WHERE param='" + name + "'";
}

inline std::string mailServer(const std::string& name) {
    return "SELECT    value  FROM ServiceNodeConfiguration    WHERE name='" + name +
           "' AND serviceNodeId=1 AND section='mailServer'";
}

}  // namespace corvo::test::statement
