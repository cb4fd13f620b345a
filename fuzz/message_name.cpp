// The size of a message whose file has the fuzzed name, as process_maildir_subdir counts it.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>
#include <optional>

#include "fuzz/support.h"
#include "mail/quota/maildir_usage.h"
#include "utils/safe_path.h"

namespace {

using corvo::fuzz::require;

constexpr long long LARGEST = std::numeric_limits<long long>::max();
constexpr std::string_view ON_DISK = "message";

// The number that makes up a text; nothing for any other text, and for one that does not fit.
std::optional<long long> numberIn(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    return errno == 0 ? std::optional(number) : std::nullopt;
}

long long expectedSize(std::string_view name) {
    constexpr std::string_view MARK = ",S=";
    for (std::size_t at = name.find(MARK); at != std::string_view::npos;
         at = name.find(MARK, at + 1)) {
        const std::string_view behind = name.substr(at + MARK.size());
        const std::size_t end = std::min(behind.find_first_not_of("0123456789"), behind.size());
        if (end != behind.size() && behind[end] != ':')
            continue;
        if (const auto size = numberIn(std::string(behind.substr(0, end))))
            return *size;
    }
    return static_cast<long long>(ON_DISK.size());
}

// Counts the folder on top of what was counted before.
void requireSize(const std::string& folder, long long before, long long size) {
    long long bytes = before;
    long long messages = 1;
    std::time_t newest = 0;
    require(process_maildir_subdir(folder.c_str(), &bytes, &messages, &newest) == 1,
            "the folder can be counted");
    require(bytes == (size > LARGEST - before ? LARGEST : before + size),
            "the size is the one in the name, or on the disk");
    require(messages == 2, "the message is counted once");
    struct stat status = {};
    require(::stat(folder.c_str(), &status) == 0 && newest == status.st_mtime,
            "the newest time is the folder's");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = corvo::fuzz::cutAtZero(corvo::fuzz::textOf(data, size));
    if (!corvo::safe_path::isComponent(name) || name.size() > NAME_MAX)
        return 0;
    static const std::string& folder = corvo::fuzz::scratchFolder();
    const std::string path = folder + "/" + name;
    corvo::fuzz::writeFile(path, ON_DISK);
    for (const long long before : {0LL, 1LL, LARGEST - 1, LARGEST})
        requireSize(folder, before, expectedSize(name));
    corvo::fuzz::must(::unlink(path.c_str()) == 0, "unlink");
    return 0;
}
