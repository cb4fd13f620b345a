#include <string>

#include "audit/check/checks.h"
#include "audit/check/panel_query.h"
#include "audit/check/panel_tables.h"
#include "audit/check/subject.h"
#include "lib/db++/connect.h"

namespace corvo::audit {

namespace {

void checkServer(const Subject& server, mysql::Connection& panel) {
    ask(panel, server, "SELECT DATABASE() AS name, CURRENT_USER() AS login, VERSION() AS version",
        [&](const Row& row) {
            server.ok(row["name"].value + " as " + row["login"].value + ", server " +
                      row["version"].value);
        });
}

void checkTables(const Subject& tables, mysql::Connection& panel) {
    bool areAllThere = true;
    for (const PanelTable& table : PANEL_TABLES)
        areAllThere &=
            ask(panel, tables,
                std::string("SELECT ") + table.columns + " FROM " + table.name + " LIMIT 0",
                [](const Row&) {});
    if (areAllThere)
        tables.ok("all tables and columns can be read");
}

std::string countOf(mysql::Connection& panel, const Subject& subject, const std::string& from) {
    std::string count;
    ask(panel, subject, "SELECT COUNT(*) AS count" + from,
        [&](const Row& row) { count = row["count"].value; });
    return count;
}

// Whoever looks at the numbers sees whether it is the right database.
void checkContents(const Subject& contents, mysql::Connection& panel) {
    const std::string domains = countOf(panel, contents, WALKED_DOMAINS);
    const std::string mailnames =
        countOf(panel, contents, std::string(WALKED_DOMAINS) + WALKED_MAILNAMES);
    if (domains.empty() || mailnames.empty())
        return;
    const std::string finding = "mail domains: " + domains + ", mail names: " + mailnames;
    if (mailnames == "0")
        contents.warning(finding, "see that it is the right panel database: nothing is restored");
    else
        contents.ok(finding);
}

}  // namespace

std::unique_ptr<mysql::Connection> checkConnection(const CheckSink& sink, bool mayTry) {
    const Subject database(sink, "panel database");
    if (!mayTry) {
        database.problem("not asked, without its credentials", "check as a user who may read them");
        return nullptr;
    }
    db_connect_failure failure;
    st_mysql* const handle = corvo_db_attempt(failure);
    if (handle != nullptr)
        return std::make_unique<mysql::Connection>(handle, /*closesIt=*/true);
    database.problem(failure.reason, "see to the server, its socket and the credentials");
    return nullptr;
}

void checkPanel(const CheckSink& sink, mysql::Connection& panel) {
    checkServer(Subject(sink, "panel database"), panel);
    checkTables(Subject(sink, "panel tables"), panel);
    checkContents(Subject(sink, "panel contents"), panel);
}

}  // namespace corvo::audit
