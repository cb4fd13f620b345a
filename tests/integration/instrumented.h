// Whether the program is built with sanitizers or for coverage: it then makes calls of its own, and
// the sanitizers' look for leaks fails under a tracer.

#pragma once

namespace corvo::test {

#ifdef CORVO_INSTRUMENTED
inline constexpr bool INSTRUMENTED = true;
#else
inline constexpr bool INSTRUMENTED = false;
#endif

}  // namespace corvo::test
