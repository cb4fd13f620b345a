// Units of size and their factors in bytes: "B", "KB", "MB", "GB", "TB", exactly so.
//
// Names must not be null. Nothing here logs, throws or changes errno.

#pragma once

struct SizeUnit {
    const char* name;
    unsigned long long factor;  // bytes
};

extern const SizeUnit SizeUnitsTextConversionTable[5];

/// The unit's factor in bytes, or 0 for an unknown unit.
unsigned long long get_size_unit(const char* name) noexcept;

/// 1 for a known unit, else 0.
int is_valid_size_unit(const char* name) noexcept;

/// value × factor in bytes: 0 for an unknown unit; wraps beyond 64 bits.
unsigned long long get_value_in_bytes(unsigned long long value, const char* unit) noexcept;
