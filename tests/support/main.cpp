// main() of every test binary: into the sandbox first, then the tests. Where there can be no
// sandbox they are skipped, with the reason in one line.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/skip.h"
#include "utils/accounts.h"
#include "utils/safe_path.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests)) {
        const std::string obstacle = corvo::test::enterSandbox();
        if (!obstacle.empty()) {
            (void)std::fprintf(stderr, "skipped: %s\n", obstacle.c_str());
            return corvo::test::SKIPPED;
        }
    }
    corvo::test::reportPastCaptures();
    corvo::safe_path::setStorageOwner(is_popuser);  // as the program says it
    return RUN_ALL_TESTS();
}
