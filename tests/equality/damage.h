// What befalls a mail server that was in order: its storage, its databases, and what a run needs.

#pragma once

#include <random>
#include <string>
#include <system_error>

#include "tests/equality/description.h"

namespace corvo::equality {

/// Ends the name of what a link has taken the place of: it leads there.
inline const std::string MOVED = "-moved";

/// Does a damage, unless one before it has made that impossible.
template <typename Damage>
void attemptDamage(Damage damage) {
    try {
        damage();
    } catch (const std::system_error&) {
        return;
    }
}

/// Delivery files: missing, with other lines, in other places, of other kinds.
void damageDelivery(const Description& description, const std::string& line,
                    std::mt19937_64& random);

/// Directories, messages and the files that hold a quota.
void damageHomes(const Description& description, std::mt19937_64& random);

/// Rows of both databases, or a database as a whole; what is missing then is added to `means`.
void damageDatabases(const Description& description, Means& means, std::mt19937_64& random);

/// The default delivery line, which every run of the pair finds. Its last word.
std::string chooseLine(std::mt19937_64& random);

/// Takes away what a run needs, of most servers nothing. `line` is what chooseLine() chose.
Means takeMeans(const std::string& line, std::mt19937_64& random);

}  // namespace corvo::equality
