// main() of every benchmark: measures inside the tests' sandbox.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        (void)std::fprintf(stderr, "%s\n", obstacle.c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
