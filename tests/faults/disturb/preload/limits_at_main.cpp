// Preloaded into a run: limits that the loader of the program's libraries must not feel.
//
//   CORVO_LIMIT_DESCRIPTORS=N  RLIMIT_NOFILE is N from main() on
//   CORVO_LIMIT_MEMORY=N       RLIMIT_AS leaves N bytes more than the process has when main()
//   begins

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/faults/disturb/preload/main_hook.h"

namespace {

void limit(__rlimit_resource resource, rlim_t value) noexcept {
    const rlimit both{value, value};
    if (::setrlimit(resource, &both) != 0)
        std::abort();
}

// Without the C library's streams, whose buffers would be part of it.
rlim_t bytesOfMemory() noexcept {
    char text[64] = "";
    const int file = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (file < 0 || ::read(file, text, sizeof text - 1) <= 0)
        std::abort();
    ::close(file);
    return std::strtoul(text, nullptr, 10) * static_cast<rlim_t>(::getpagesize());
}

}  // namespace

void corvo::faults::beforeMain() noexcept {
    if (const char* const most = std::getenv("CORVO_LIMIT_DESCRIPTORS"))
        limit(RLIMIT_NOFILE, std::strtoul(most, nullptr, 10));
    if (const char* const more = std::getenv("CORVO_LIMIT_MEMORY"))
        limit(RLIMIT_AS, bytesOfMemory() + std::strtoul(more, nullptr, 10));
}
