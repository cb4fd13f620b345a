#include "audit/check/processes.h"

#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <optional>

#include "audit/check/look.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

constexpr const char* PROCESSES = "/proc";

std::optional<pid_t> numberOf(std::string_view entry) {
    pid_t number = 0;
    const auto [end, error] = std::from_chars(entry.begin(), entry.end(), number);
    if (error != std::errc() || end != entry.end())
        return std::nullopt;
    return number;
}

}  // namespace

std::string nameOfProcess(pid_t process) {
    std::string name =
        contentsOfSmall(AT_FDCWD, std::string(PROCESSES) + "/" + std::to_string(process) + "/comm")
            .value_or("");
    if (name.ends_with('\n'))
        name.pop_back();
    return name;
}

bool forEachProcess(const std::function<void(pid_t process, std::string_view name)>& visit) {
    DirEntries entries = safe_path::openEntries(AT_FDCWD, PROCESSES);
    if (!entries)
        return false;
    while (const dirent64* const entry = entries.next())
        if (const auto process = numberOf(entry->d_name))
            visit(*process, nameOfProcess(*process));
    return errno == 0;
}

}  // namespace corvo::audit
