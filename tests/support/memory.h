// A process without memory.

#pragma once

#include <cstddef>

#include "tests/support/sandbox.h"

namespace corvo::test {

/// Leaves the test out where the allocator ends the process instead of returning null
/// (AddressSanitizer).
void requireExhaustibleMemory();

/// A test that is left out there.
class WithoutMemoryTest : public SandboxTest {
protected:
    void SetUp() override { requireExhaustibleMemory(); }
};

/// Makes every later allocation of this process fail, except for one block of `left` bytes. For
/// forked children only. The process gets its memory back at exit().
void exhaustMemory(std::size_t left = 0);

/// From now on this process can have no more than so many bytes of address space. For forked
/// children only; the process gets its memory back at exit().
void limitMemory(std::size_t bytes);

/// The bytes that count against limitMemory.
std::size_t memoryInUse();

}  // namespace corvo::test
