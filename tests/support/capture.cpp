#include "tests/support/capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <system_error>

namespace corvo::test {

namespace {

int checked(int result, const char* what) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

void flushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::clog.flush();
    (void)std::fflush(nullptr);
}

}  // namespace

StreamCapture::Stream StreamCapture::redirect(int target) {
    Stream stream;
    stream.target = target;
    stream.saved = checked(::fcntl(target, F_DUPFD_CLOEXEC, 100), "dup");
    stream.file = checked(::memfd_create("capture", MFD_CLOEXEC), "memfd_create");
    checked(::fcntl(stream.file, F_SETFL, O_APPEND), "fcntl");
    checked(::dup2(stream.file, target), "dup2");
    return stream;
}

std::string StreamCapture::take(const Stream& stream) {
    flushAll();
    std::string text;
    char piece[4096];
    checked(static_cast<int>(::lseek(stream.file, 0, SEEK_SET)), "lseek");
    for (;;) {
        const ssize_t got = ::read(stream.file, piece, sizeof piece);
        if (got <= 0)
            break;
        text.append(piece, static_cast<std::size_t>(got));
    }
    checked(::ftruncate(stream.file, 0), "ftruncate");
    return text;
}

void StreamCapture::putBack(Stream& stream) {
    ::dup2(stream.saved, stream.target);
    ::close(stream.saved);
    ::close(stream.file);
}

StreamCapture::StreamCapture() {
    flushAll();
    out_ = redirect(STDOUT_FILENO);
    err_ = redirect(STDERR_FILENO);
}

// A capture that cannot be read leaves nothing to go on with; the process then ends.
StreamCapture::~StreamCapture() {  // NOLINT(bugprone-exception-escape)
    const std::string restOfOut = take(out_);
    const std::string restOfErr = take(err_);
    putBack(out_);
    putBack(err_);
    EXPECT_EQ(restOfOut, "") << "undeclared on standard output";
    EXPECT_EQ(restOfErr, "") << "undeclared on standard error";
}

std::string StreamCapture::out() {
    return take(out_);
}

std::string StreamCapture::err() {
    return take(err_);
}

}  // namespace corvo::test
