// Leaving a test out, with a reason, where this machine cannot run it.

#pragma once

#include <string>

namespace corvo::test {

/// The exit status that CTest takes for "skipped".
inline constexpr int SKIPPED = 77;

/// Ends the current test, wherever in it this is called, and counts it as skipped.
[[noreturn]] void skipTest(const std::string& reason);

}  // namespace corvo::test
