// The powers that a hostile process has.

#pragma once

namespace corvo::faults {

/// Gives up root's identity and groups for popuser's, for good; the process still dies with its
/// parent. Throws std::system_error.
void becomePopuser();

}  // namespace corvo::faults
