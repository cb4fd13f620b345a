// What the tests of the database layer share.

#pragma once

#include <string>

#include "lib/db++/connection.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace corvo::mysql::test {

/// A test with a panel database of its own and a connection to it.
class DatabaseTest : public corvo::test::SandboxTest {
protected:
    /// The value of the column `v` in a statement's first row.
    std::string valueOf(const std::string& statement) { return valueOf(connection, statement); }

    static std::string valueOf(Connection& any, const std::string& statement) {
        Result result = any << statement << Query::fetch;
        Result::row_t row;
        return result.fetch(&row) ? row["v"].value : "no row";
    }

    corvo::test::PanelDatabase panel;
    Connection connection{true};
};

/// The text of the mError that `work` throws.
template <typename Work>
std::string failureOf(Work work) {
    try {
        work();
    } catch (const mError& e) {
        return e.what();
    }
    return "nothing was thrown";
}

}  // namespace corvo::mysql::test
