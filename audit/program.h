// The program: command line in, status out.

#pragma once

namespace corvo::audit {

/// Carries out what the command line asks for. Returns the status: 0 when nothing is to be
/// repaired, 1 when something is, 2 when that was not looked at whole, which is told on standard
/// error. Throws nothing but std::bad_alloc.
int run(int argc, const char* const* argv);

}  // namespace corvo::audit
