// A database server that may be killed: one of its own, with a copy of the panel's database.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/panel.h"

namespace corvo::faults {

class ExpendableServer {
public:
    /// Starts it; takes some seconds. Throws std::runtime_error.
    explicit ExpendableServer(test::PanelDatabase& panel);

    /// Stays the same when the server is started again.
    std::string socket() const { return folder_ + "/socket"; }

    void kill();
    /// Starts it again after a kill, and waits until it answers.
    void revive();
    void reviveIfKilled();

private:
    pid_t process() const;
    bool answers() const;
    void copyFrom(test::PanelDatabase& panel) const;

    /// Started and stopped by the script, which knows it by a record.
    struct Started {
        Started();
        ~Started();
        Started(const Started&) = delete;
        Started& operator=(const Started&) = delete;
    };

    Started started_;
    std::string folder_;
    std::vector<std::string> command_;  // with which it was started
};

}  // namespace corvo::faults
