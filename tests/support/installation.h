// What the panel's installer leaves on a mail server before any mail is there.

#pragma once

#include <string>
#include <vector>

#include "tests/support/panel.h"

namespace corvo::test {

inline const std::string USERDB = "/var/lib/corvo/mail/userdb/userdb.db";
inline const std::string HANDLERS = "/var/lib/corvo/mail/handlers/handlers.db";
inline const std::string DEFAULT_DELIVERY = "/var/qmail/mailnames/.default_delivery";
inline const std::string DELIVERY_LINE = "| /usr/bin/deliverquota ./Maildir";

/// Both SQLite databases (the handlers database with one foreign handler), the default delivery
/// file and the delivery agent. Needs a sandbox in its first state.
void installMailServer();

/// Loads the sample panel database of the demo.
void loadSample(PanelDatabase& panel);

/// The rows "domain|mailbox|quota" of the user database, sorted.
std::vector<std::string> quotaRows();

/// The rows "queue|type|enabled|priority|name|address|executable|context|protected" of the handlers
/// database, sorted.
std::vector<std::string> handlerRows();

/// Tree, contents and rows: everything that a run is responsible for, as text. Two equal texts are
/// equal states.
std::string restoredState();

}  // namespace corvo::test
