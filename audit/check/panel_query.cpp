#include "audit/check/panel_query.h"

#include "lib/db++/error.h"

namespace corvo::audit {

bool ask(mysql::Connection& panel, const Subject& subject, const std::string& statement,
         const std::function<void(const Row& row)>& visit) {
    try {
        mysql::Result rows = panel << statement << mysql::Query::fetch;
        Row row;
        while (rows.fetch(&row))
            visit(row);
        return true;
    } catch (const mysql::mError& error) {
        subject.problem(error.what(), "see that the table is there and may be read");
        return false;
    }
}

}  // namespace corvo::audit
