// What the walk reads of the panel database.

#pragma once

namespace corvo::audit {

struct PanelTable {
    const char* name;
    const char* columns;  // as a statement lists them
};

inline constexpr PanelTable PANEL_TABLES[] = {
    {"domains", "id, name"},
    {"domain_aliases", "dom_id, name, mail, status"},
    {"DomainServices", "dom_id, type, status, parameters_id"},
    {"Parameters", "id, parameter, value"},
    {"Subscriptions", "id, object_type, object_id"},
    {"SubscriptionProperties", "subscription_id, name, value"},
    {"Limits", "id, limit_name, value"},
    {"mail", "id, dom_id, mail_name, postbox, delivery, mail_group, mbox_quota"},
    {"mail_aliases", "mn_id, alias"},
    {"mail_redir", "mn_id, address"},
    {"certificates", "id, cert_file"},
    {"smtp_poplocks", "ip_address, ip_mask, lock_time"},
    {"badmailfrom", "domain"},
    {"misc", "param, val"},
    {"ServiceNodeConfiguration", "serviceNodeId, section, name, value"},
};

}  // namespace corvo::audit
