// What a preloaded module does when the program itself begins.

#pragma once

namespace corvo::faults {

/// Defined by each module; called once, after the C library's start-up and the static
/// initialisation of all libraries, right before main().
void beforeMain() noexcept;

}  // namespace corvo::faults
