// What is on the disk and in the user database that the panel does not know: a run leaves it alone.

#pragma once

#include <functional>
#include <map>
#include <string>
#include <unordered_map>
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
    /// names', unless the walk could not read them all. A domain that the panel has in several
    /// spellings, which share their folder, is dealt with when the last one is left.
    void leaveDomain(const Sink& sink);

    /// Hands out domain roots and rows of domains that the panel does not have.
    void finish(const Sink& sink);

private:
    using NameSet = std::unordered_set<std::string>;

    // What the walk has told so far of the domains of one name.
    struct Told {
        std::size_t domains = 0;
        bool isWhole = true;
        NameSet mailnames;
    };

    template <typename Known>
    std::vector<std::string> unknownDirectories(const std::string& path, const Known& known);
    void nameHomes(const std::string& domain, const NameSet& known, const Sink& sink);
    void nameRows(const std::string& domain, const NameSet& known, const Sink& sink);
    void nameUnknownRoots(const Sink& sink);
    void nameUnknownRows(const Sink& sink);
    void tellOfDomainsNotTold();

    Output& output_;
    const Scope& scope_;
    QuotaRows rows_;
    std::unordered_map<std::string, std::size_t> domains_;       // how many the panel has of a name
    std::map<std::string, Told> told_;                           // what is not yet dealt with
    std::map<std::string, Told>::value_type* walked_ = nullptr;  // in there; null: none
    std::size_t reportsBefore_ = 0;
};

}  // namespace corvo::audit
