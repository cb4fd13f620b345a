// A system call that fails.

#pragma once

namespace corvo::test {

/// From now on the system call fails with `error`, in this process and its children: for forked
/// children. Throws std::system_error when that cannot be had.
void failSystemCall(long number, int error);

}  // namespace corvo::test
