// What a login asks the database server, read from the server's own log.

#pragma once

#include <cstddef>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tests/support/panel.h"

namespace corvo::test {

/// Sees what the panel database's login does from the construction on.
class GeneralLog {
public:
    explicit GeneralLog(PanelDatabase& panel);

    /// "<n>. <statement>" for the login's nth connection; each statement once only.
    std::vector<std::string> statements();

    /// How many connections there were up to the last statement that was given.
    std::size_t connections() const { return connectionOf_.size(); }

private:
    void take(const std::string& line, std::vector<std::string>& found);

    std::string user_;
    std::ifstream log_;
    std::map<int, std::size_t> connectionOf_;
};

}  // namespace corvo::test
