// Runs a command in a sandbox of its own: enter_sandbox COMMAND [ARGUMENT ...]

#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        (void)std::fprintf(stderr, "Usage: %s COMMAND [ARGUMENT ...]\n", argv[0]);
        return 2;
    }
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        (void)std::fprintf(stderr, "%s\n", obstacle.c_str());
        return 1;
    }
    corvo::test::resetSandbox();
    ::execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
