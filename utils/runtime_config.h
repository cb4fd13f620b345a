// Where things are on this installation: /etc/vhc/vhc.conf, and defaults of the build for what it
// does not say.
//
// The file is read at the first look-up and kept until the process ends; while it cannot be read,
// each look-up tries again. Values belong to the configuration and live as long as the process.
// None throws; a look-up that had to read the file may leave any errno.

#pragma once

/// What is read.
inline constexpr const char* CONFIGURATION_FILE = "/etc/vhc/vhc.conf";

/// Number of variables; the first and the last are sentinels.
inline constexpr int VHC_CONF_COUNT = 31;

extern const char* const theVhcConfNames[VHC_CONF_COUNT];
extern const char* const theVhcConfDefauls[VHC_CONF_COUNT];  // sic

/// Indices that this program asks for.
inline constexpr int CORVO_MAILNAMES_D = 1;
inline constexpr int MYSQL_SOCKET = 26;

/// The file's value, or null.
const char* vhcConfGet(const char* name) noexcept;

/// The file's value of theVhcConfNames[index], or null. 0 <= index < VHC_CONF_COUNT.
const char* vhcConfGetByIndex(int index) noexcept;

/// The file's value or the default; never null. 0 <= index < VHC_CONF_COUNT.
const char* vhcConfGetDefaultByIndex(int index) noexcept;

/// The same by name, the last sentinel excepted; null for an unknown name, which is logged at
/// priority 3 even if the file defines it.
const char* vhcConfGetDefault(const char* name) noexcept;
