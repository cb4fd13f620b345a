// How far a walk is, on a terminal.

#pragma once

#include <chrono>
#include <cstddef>

#include "audit/options.h"

namespace corvo::audit {

/// One line on standard error, written anew: domains done of all, and an estimate of what is left.
/// Nothing where standard error is no terminal, or nobody wants it.
class Progress {
public:
    explicit Progress(const Options& options);

    /// One more domain is begun.
    void step();

    /// Takes the line away, for others to write.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    void show(Clock::time_point now);

    bool isWanted_;
    bool isShown_ = false;
    std::size_t begun_ = 0;
    Clock::time_point start_;
    Clock::time_point shown_;
};

}  // namespace corvo::audit
