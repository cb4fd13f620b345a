#include "audit/library_output.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>

#include "tests/support/capture.h"

namespace corvo::test {
namespace {

TEST(LibraryOutputTest, WhatLibrariesPrintIsThrownAwayWhileItLives) {
    StreamCapture streams;
    std::FILE* const own = stdout;
    {
        const audit::LibraryOutput thrownAway;
        std::printf("%s", "a library's\n");
        std::fflush(stdout);
        std::cout << "a stream's" << std::endl;
        std::fputs("our own\n", own);
    }
    EXPECT_EQ(streams.out(), "our own\n");
    std::printf("%s", "a library's\n");
    std::cout << "a stream's" << std::endl;
    EXPECT_EQ(streams.out(), "a library's\na stream's\n");
}

}  // namespace
}  // namespace corvo::test
