// main() of a fuzz target that runs without libFuzzer: feeds it each file of the given folder.

#include <cstdio>
#include <filesystem>
#include <string>

#include "fuzz/support.h"

namespace {

int replay(const std::string& folder) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        (void)std::fprintf(stderr, "%s\n", entry.path().c_str());
        const std::string input = corvo::fuzz::contentsOf(entry.path());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        ++count;
    }
    std::printf("%d inputs\n", count);
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        (void)std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    try {
        return replay(argv[1]) > 0 ? 0 : 1;
    } catch (const std::exception& e) {
        (void)std::fprintf(stderr, "%s\n", e.what());
        return 2;
    }
}
