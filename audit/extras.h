// What is on the disk and in the user database that the panel does not know: a run leaves it alone.

#pragma once

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "audit/databases.h"
#include "audit/item.h"
#include "audit/options.h"
#include "audit/output.h"

namespace corvo::mysql {
class Connection;
}

namespace corvo::audit {

class Extras {
public:
    using Sink = std::function<void(const Item& item)>;

    /// Asks for the names of all domains, those without mail included. Throws mysql::mError.
    Extras(Output& output, const Scope& scope, mysql::Connection& connection);

    /// A domain is walked, and these are its mail names.
    void enterDomain(const std::string& domain);
    void know(const std::string& mailname);

    /// Hands out the homes and rows of the domain that was walked last which are not its mail
    /// names', unless the walk could not read them all.
    void leaveDomain(const Sink& sink);

    /// Hands out domain roots and rows of domains that the panel does not have.
    void finish(const Sink& sink);

private:
    using NameSet = std::unordered_set<std::string>;

    std::vector<std::string> unknownDirectories(const std::string& path, const NameSet& known);

    Output& output_;
    const Scope& scope_;
    QuotaRows rows_;
    NameSet domains_;
    std::string domain_;  // that is walked; empty: none
    std::size_t reportsBefore_ = 0;
    NameSet mailnames_;
};

}  // namespace corvo::audit
