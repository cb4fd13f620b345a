// What a walk writes when something fails, and how often it did.

#pragma once

#include <cstddef>
#include <ostream>

namespace corvo::mail::restore {

/// The stream for a warning; each call counts one. End the warning with std::endl, as corvo::uerr
/// wants it.
std::ostream& warning();

/// The stream for the line of a stage that failed; each call counts one.
std::ostream& failureLine();

/// How often the two above were called since the count began.
std::size_t reportCount() noexcept;

/// Begins the count anew.
void resetReportCount() noexcept;

}  // namespace corvo::mail::restore
