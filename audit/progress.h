// How far a walk is, on a terminal.

#pragma once

#include <chrono>
#include <cstddef>

#include "audit/options.h"

namespace corvo::audit {

/// One line on standard error, written anew: domains done of all, and an estimate of what is left.
/// Nothing where standard error is no terminal, or nobody wants it. Whatever else the program
/// writes takes the line away first.
class Progress {
public:
    explicit Progress(const Options& options);

    /// One more domain is begun.
    void step();

private:
    using Clock = std::chrono::steady_clock;

    void show(Clock::time_point now);

    bool isWanted_;
    std::size_t begun_ = 0;
    Clock::time_point start_;
    Clock::time_point shown_;
};

/// Takes the line away, for others to write. Nothing where none is shown.
void clearProgress() noexcept;

}  // namespace corvo::audit
