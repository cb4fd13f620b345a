// Races with a second process that changes the tree meanwhile.

#pragma once

#include <fcntl.h>

#include <cstdio>
#include <functional>
#include <ostream>
#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"

namespace corvo::test {

/// While it lives, a second process runs `step` again and again.
class Racer {
public:
    explicit Racer(const std::function<void()>& step)
        : process_([&step](const SecondProcess::Ready& ready) {
              ready();
              for (;;)
                  step();
          }) {}

private:
    SecondProcess process_;
};

/// Lets two names change places in one go; nothing happens when one is missing.
inline void exchange(const std::string& one, const std::string& other) {
    (void)::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
}

/// Puts a link of popuser in place of a file.
inline void plantLink(const std::string& target, const std::string& path) {
    const std::string planted = path + ".planted";
    makeLink(target, planted, POPUSER_UID);
    (void)std::rename(planted.c_str(), path.c_str());
}

/// How the rounds of a race ended. Both ends must be seen, or there was no race.
class Outcomes {
public:
    void note(bool done) { ++(done ? done_ : refused_); }
    bool both() const { return done_ > 0 && refused_ > 0; }

    /// True for 300 rounds, and then until both ends were seen, within reason.
    bool wantsMore() const {
        const int rounds = done_ + refused_;
        return rounds < 300 || (!both() && rounds < 30000);
    }

    friend std::ostream& operator<<(std::ostream& stream, const Outcomes& outcomes) {
        return stream << outcomes.done_ << " done, " << outcomes.refused_ << " refused";
    }

private:
    int done_ = 0;
    int refused_ = 0;
};

}  // namespace corvo::test
