// main() of every test binary: into the sandbox first, then the tests.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests)) {
        const std::string obstacle = corvo::test::enterSandbox();
        if (!obstacle.empty()) {
            (void)std::fprintf(stderr, "%s\n", obstacle.c_str());
            return 1;
        }
    }
    return RUN_ALL_TESTS();
}
