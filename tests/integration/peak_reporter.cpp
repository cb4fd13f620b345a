// Preloaded into a whole run: at its end writes its peak of virtual memory, in KiB, to the file
// that CORVO_PEAK_FILE names. Resident memory would count what happens to be cached of the binary,
// and what wait4() tells the pages of the process that forked it.

#include <cstdio>
#include <cstdlib>

namespace {

long peakKiB() {
    std::FILE* const status = std::fopen("/proc/self/status", "re");
    if (status == nullptr)
        return -1;
    char line[256];
    long peak = -1;
    while (std::fgets(line, sizeof line, status) != nullptr)
        if (std::sscanf(line, "VmPeak: %ld", &peak) == 1)  // NOLINT(cert-err34-c)
            break;
    (void)std::fclose(status);
    return peak;
}

// Runs when the program ends, after its own destructors.
__attribute__((destructor)) void reportPeak() {
    const char* const path = std::getenv("CORVO_PEAK_FILE");
    std::FILE* const file = path != nullptr ? std::fopen(path, "we") : nullptr;
    if (file == nullptr)
        return;
    (void)std::fprintf(file, "%ld", peakKiB());
    (void)std::fclose(file);
}

}  // namespace
