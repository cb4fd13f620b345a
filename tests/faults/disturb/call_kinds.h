// What kinds of system calls there are, by their numbers.

#pragma once

namespace corvo::faults {

/// Leaves something behind when the process is killed after it. Reading, looking and waiting leave
/// nothing, and locks and mappings go with the process.
bool leavesTraces(long number);

/// Has no way to report an error; or the C library takes one for a broken kernel and aborts.
bool isInfallible(long number);

/// Is how the database client looks for an answer.
bool looksForAnswer(long number);

/// Releases the thing even when it reports an error.
bool releases(long number);

/// Carries what was written to the disk.
bool flushes(long number);

/// Opens, looks at or reads something on a disk.
bool reads(long number);

/// Where a call has the path of what it is about: in its first argument, or in the second below the
/// directory that is open as the first. Other calls have a descriptor.
enum class PathAt { nowhere, first, second };
PathAt pathAt(long number);

}  // namespace corvo::faults
