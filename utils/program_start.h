// What a program of this system sees to before anything else.

#pragma once

namespace corvo {

/// Opens /dev/null until descriptors 0 to 2 exist: a file that is opened later must never become
/// standard output, or messages would go into it.
void ensureStandardDescriptors() noexcept;

/// The database client sleeps a microsecond in each connect; the kernel's slack makes that fifty.
void sleepNoLongerThanAsked() noexcept;

}  // namespace corvo
