// Access control lists. All throw std::system_error.

#pragma once

#include <string>

namespace corvo::test {

/// What is made in the directory is open to everybody, whatever the umask.
void openNewEntriesToAll(const std::string& directory);

/// Lets popuser work in the directory, which stays its owner's.
void letPopuserWorkIn(const std::string& directory);

}  // namespace corvo::test
