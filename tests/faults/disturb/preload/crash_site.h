// Which library a run crashes in.

#pragma once

namespace corvo::faults {

/// From now on a SIGSEGV or SIGABRT writes "CRASH IN <library>" on standard error before it ends
/// the process: the innermost library that is neither the C library nor this one.
void reportCrashes() noexcept;

}  // namespace corvo::faults
