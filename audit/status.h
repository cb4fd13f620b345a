// The program's exit statuses.

#pragma once

namespace corvo::audit {

inline constexpr int NOTHING_TO_REPAIR = 0;
inline constexpr int SOMETHING_TO_REPAIR = 1;
/// Not everything was looked at, or printed, or nothing could be.
inline constexpr int NOT_WHOLE = 2;

}  // namespace corvo::audit
