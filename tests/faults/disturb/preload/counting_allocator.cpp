// Preloaded into a run: counts what main() and all that it calls allocate, and lets it fail.
//
//   CORVO_FAIL_ALLOCATION=N    the N-th allocation fails, counted from 1
//   CORVO_FAIL_FOR_GOOD=1      and all after it
//   CORVO_ALLOCATIONS_FILE=F   at the end, a 64-bit number for each allocation is written to F:
//   equal
//                              numbers came from the same chain of callers

#include <execinfo.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "tests/faults/disturb/preload/crash_site.h"
#include "tests/faults/disturb/preload/main_hook.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

constexpr int DEPTH = 9;
constexpr std::size_t MOST_RECORDED = 1U << 18U;

bool counting = false;
bool forGood = false;
unsigned long failing = 0;  // 0: none
unsigned long counted = 0;
const char* recordPath = nullptr;
std::uint64_t chains[MOST_RECORDED];

std::uint64_t chainOfCallers() noexcept {
    void* callers[DEPTH];
    const int depth = ::backtrace(callers, DEPTH);
    std::uint64_t hash = 14695981039346656037U;
    for (int i = 0; i < depth; ++i)
        hash = (hash ^ reinterpret_cast<std::uintptr_t>(callers[i])) * 1099511628211U;
    return hash;
}

// Looking at the callers may allocate, which does not count.
void record() noexcept {
    counting = false;
    if (counted <= MOST_RECORDED)
        chains[counted - 1] = chainOfCallers();
    counting = true;
}

bool isToFail() noexcept {
    if (!counting)
        return false;
    ++counted;
    if (recordPath != nullptr)
        record();
    return failing != 0 && (forGood ? counted >= failing : counted == failing);
}

template <typename Allocate>
void* countedly(Allocate allocate) noexcept {
    if (!isToFail())
        return allocate();
    errno = ENOMEM;
    return nullptr;
}

unsigned long numberIn(const char* variable) noexcept {
    const char* const text = std::getenv(variable);
    return text == nullptr ? 0 : std::strtoul(text, nullptr, 10);
}

__attribute__((destructor)) void writeRecord() {
    counting = false;
    if (recordPath == nullptr)
        return;
    const int file = ::open(recordPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const std::size_t size = std::min<std::size_t>(counted, std::size(chains)) * sizeof chains[0];
    if (::write(file, chains, size) != static_cast<ssize_t>(size))
        std::abort();  // a record that is not whole would name the wrong points
    ::close(file);
}

}  // namespace

void corvo::faults::beforeMain() noexcept {
    // The C library reads at the first look-up how accounts are looked up, and ends the process
    // when there is no memory for that: a part of its start-up, only later.
    (void)::getpwnam("root");
    reportCrashes();
    failing = numberIn("CORVO_FAIL_ALLOCATION");
    forGood = numberIn("CORVO_FAIL_FOR_GOOD") != 0;
    recordPath = std::getenv("CORVO_ALLOCATIONS_FILE");
    counting = true;
}

// In front of the C library's.
extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return countedly([=] { return __libc_malloc(size); });
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return countedly([=] { return __libc_calloc(count, size); });
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
    return countedly([=] { return __libc_realloc(memory, size); });
}

__attribute__((visibility("default"))) void* reallocarray(void* memory, std::size_t count,
                                                          std::size_t size) {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realloc(memory, bytes);
}

__attribute__((visibility("default"))) void* memalign(std::size_t alignment, std::size_t size) {
    return countedly([=] { return __libc_memalign(alignment, size); });
}

__attribute__((visibility("default"))) void* aligned_alloc(std::size_t alignment,
                                                           std::size_t size) {
    return memalign(alignment, size);
}

__attribute__((visibility("default"))) int posix_memalign(void** memory, std::size_t alignment,
                                                          std::size_t size) {
    void* const allocated = memalign(alignment, size);
    if (allocated == nullptr)
        return ENOMEM;
    *memory = allocated;
    return 0;
}

}  // extern "C"
