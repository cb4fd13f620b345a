// The processes of this machine, by the names that the kernel has of them.

#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace corvo::audit {

/// The short name of a process; empty when it cannot be read, or the process is gone.
std::string nameOfProcess(pid_t process);

/// Visits each process that can be seen. False with errno when processes cannot be listed.
bool forEachProcess(const std::function<void(pid_t process, std::string_view name)>& visit);

}  // namespace corvo::audit
