#include "tests/faults/disturb/preload/crash_site.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <initializer_list>

namespace {

constexpr int DEPTH = 32;

const char* libraryOf(void* address) noexcept {
    Dl_info info{};
    return ::dladdr(address, &info) != 0 ? info.dli_fname : "";
}

bool isInnocent(const char* library) noexcept {
    static const char* const own = libraryOf(reinterpret_cast<void*>(&libraryOf));
    return *library == '\0' || std::strcmp(library, own) == 0 ||
           std::strstr(library, "/libc.so") != nullptr;
}

void write(const char* text) noexcept {
    (void)!::write(STDERR_FILENO, text, std::strlen(text));
}

void report(int signal) {
    void* callers[DEPTH];
    const int depth = ::backtrace(callers, DEPTH);
    int innermost = 0;
    while (innermost < depth - 1 && isInnocent(libraryOf(callers[innermost])))
        ++innermost;
    write("CRASH IN ");
    write(libraryOf(callers[innermost]));
    write("\n");
    ::raise(signal);  // for good: the handler is gone
}

}  // namespace

void corvo::faults::reportCrashes() noexcept {
    void* ignored[1];
    (void)::backtrace(ignored, 1);  // what it allocates, it allocates at its first call
    (void)isInnocent("");
    struct sigaction action {};
    action.sa_handler = report;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signal : {SIGSEGV, SIGABRT})
        ::sigaction(signal, &action, nullptr);
}
