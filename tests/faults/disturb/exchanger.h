// popuser, who exchanges two names again and again.

#pragma once

#include <cstddef>
#include <string>

#include "tests/faults/disturb/background.h"

namespace corvo::faults {

/// A process of popuser's. Each exchange is one system call (RENAME_EXCHANGE), so there is always
/// something under both names. It begins at rest.
class Exchanger {
public:
    /// Throws std::system_error.
    Exchanger(const std::string& one, const std::string& other);
    Exchanger(const Exchanger&) = delete;
    Exchanger& operator=(const Exchanger&) = delete;
    ~Exchanger();

    void start();
    /// Returns when the process rests; which of the two is under which name is left to chance.
    void stop();

    /// Exchanges made so far.
    std::size_t count() const;

private:
    struct Shared;

    Shared* shared_;
    Background process_;
};

}  // namespace corvo::faults
