// Runs a command in a sandbox of its own: enter_sandbox COMMAND [ARGUMENT ...]
// The exit status is the command's; 77 says that there can be no sandbox here.

#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"
#include "tests/support/skip.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        (void)std::fprintf(stderr, "Usage: %s COMMAND [ARGUMENT ...]\n", argv[0]);
        return 2;
    }
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        (void)std::fprintf(stderr, "skipped: %s\n", obstacle.c_str());
        return corvo::test::SKIPPED;
    }
    corvo::test::resetSandbox();
    ::execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
