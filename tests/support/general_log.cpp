#include "tests/support/general_log.h"

#include <sstream>

namespace corvo::test {

GeneralLog::GeneralLog(PanelDatabase& panel) : user_(panel.user()) {
    panel.execute("SET GLOBAL general_log=1");
    log_.open(panel.query("SELECT @@general_log_file").at(0));
    log_.seekg(0, std::ios::end);
}

std::vector<std::string> GeneralLog::statements() {
    std::vector<std::string> found;
    for (std::string line; std::getline(log_, line);)
        take(line, found);
    return found;
}

// "[time]\t<thread> <command>\t<argument>"
void GeneralLog::take(const std::string& line, std::vector<std::string>& found) {
    const auto start = line.find('\t');
    const auto end = line.find('\t', line.find_first_not_of("\t ", start));
    if (start == std::string::npos || end == std::string::npos)
        return;
    std::istringstream words(line.substr(start, end - start));
    int thread = 0;
    std::string command;
    words >> thread >> command;
    const std::string argument = line.substr(end + 1);
    if (command == "Connect" && argument.starts_with(user_ + "@"))
        connectionOf_.emplace(thread, connectionOf_.size() + 1);
    else if (command == "Query" && connectionOf_.contains(thread))
        found.push_back(std::to_string(connectionOf_[thread]) + ". " + argument);
}

}  // namespace corvo::test
