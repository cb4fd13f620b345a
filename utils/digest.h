// MD5 digests for lock-file names.

#pragma once

/// Length of a hexadecimal digest with its terminating zero.
inline constexpr int MD5_HEX_SIZE = 33;

/// Writes the 32 lower-case hexadecimal digits of the MD5 of prefix followed by text (either may
/// be null or empty) and a zero into `out` (33 bytes). Returns `out`.
char* get_md5sum(const char* prefix, const char* text, char* out) noexcept;
