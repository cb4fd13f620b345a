#include "tests/support/memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/files.h"
#include "tests/support/skip.h"

namespace corvo::test {

namespace {

void limitAddressSpace(rlim_t bytes) {
    struct rlimit limit {};
    ::getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = bytes == RLIM_INFINITY ? limit.rlim_max : bytes;
    ::setrlimit(RLIMIT_AS, &limit);
}

// The stack may not grow any more either.
void touchStack() {
    volatile char stack[256 * 1024];
    for (std::size_t i = 0; i < sizeof stack; i += 1024)
        stack[i] = 0;
}

// Nothing is given back. Volatile, or the compiler leaves the allocations out.
void takeAll(std::size_t size) {
    void* volatile taken = nullptr;
    do
        taken = std::malloc(size);
    while (taken != nullptr);
}

}  // namespace

void requireExhaustibleMemory() {
#ifdef __SANITIZE_ADDRESS__
    skipTest("the allocator of this build ends the process instead");
#endif
}

void limitMemory(std::size_t bytes) {
    std::atexit([] { limitAddressSpace(RLIM_INFINITY); });
    limitAddressSpace(bytes);
}

std::size_t memoryInUse() {
    return std::stoull(contentsOf("/proc/self/statm")) * static_cast<unsigned>(::getpagesize());
}

void exhaustMemory(std::size_t left) {
    void* volatile block = left > 0 ? std::malloc(left) : nullptr;
    touchStack();
    limitMemory(0);
    for (std::size_t size = 1 << 20; size > 2048; size /= 2)
        takeAll(size);
    // The allocator keeps small blocks apart by size.
    for (std::size_t size = 2048; size > 0; size -= 8)
        takeAll(size);
    std::free(block);
}

}  // namespace corvo::test
