// A process without memory.

#pragma once

#include <cstddef>

namespace corvo::test {

/// False where the allocator ends the process instead of returning null (AddressSanitizer).
bool canExhaustMemory();

/// Makes every later allocation of this process fail, except for one block of `left` bytes. For
/// forked children only. The process gets its memory back at exit().
void exhaustMemory(std::size_t left = 0);

}  // namespace corvo::test
