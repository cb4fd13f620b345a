#include "audit/escaped_errors.h"

#include <gtest/gtest.h>

#include <iostream>

#include "tests/support/capture.h"
#include "utils/error_stream.h"

namespace corvo::test {
namespace {

TEST(EscapedErrorsTest, LinesAreEscapedWhileItLives) {
    StreamCapture streams;
    {
        const audit::EscapedErrors escaped;
        std::cerr << "a\x1b[2J"
                  << "\xc3"
                  << "\xbc\n";
        EXPECT_EQ(streams.err(), "a\\x1b[2Jü\n");
        uerr << "b\x9b" << std::endl;
        EXPECT_EQ(streams.err(), "b\\x9b\n");
        std::cerr << "begun\r";
        EXPECT_EQ(streams.err(), "");
    }
    EXPECT_EQ(streams.err(), "begun\\x0d");
    std::cerr << "c\x1b\n";
    EXPECT_EQ(streams.err(), "c\x1b\n");
    EXPECT_EQ(streams.out(), "b\x9b\n");
}

}  // namespace
}  // namespace corvo::test
