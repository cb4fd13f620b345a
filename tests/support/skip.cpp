#include "tests/support/skip.h"

#include <gtest/gtest.h>

namespace corvo::test {

namespace {

void noteSkip(const std::string& reason) {
    GTEST_SKIP() << reason;
}

}  // namespace

void skipTest(const std::string& reason) {
    noteSkip(reason);
    // The framework ends a test quietly at this exception; GTEST_SKIP alone only leaves its
    // function.
    throw ::testing::AssertionException(::testing::TestPartResult(
        ::testing::TestPartResult::kSkip, __FILE__, __LINE__, reason.c_str()));
}

}  // namespace corvo::test
