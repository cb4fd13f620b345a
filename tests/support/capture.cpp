#include "tests/support/capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
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

// The framework tells its listeners of a failure in the order in which they were added.
class BeforePrinter : public ::testing::EmptyTestEventListener {
public:
    explicit BeforePrinter(std::optional<CapturePause>& pause) : pause_(pause) {}
    void OnTestPartResult(const ::testing::TestPartResult&) override { pause_.emplace(); }

private:
    std::optional<CapturePause>& pause_;
};

class AfterPrinter : public ::testing::EmptyTestEventListener {
public:
    explicit AfterPrinter(std::optional<CapturePause>& pause) : pause_(pause) {}
    void OnTestPartResult(const ::testing::TestPartResult&) override { pause_.reset(); }

private:
    std::optional<CapturePause>& pause_;
};

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
    newest = this;
}

// A capture that cannot be read leaves nothing to go on with; the process then ends.
StreamCapture::~StreamCapture() {  // NOLINT(bugprone-exception-escape)
    const std::string restOfOut = take(out_);
    const std::string restOfErr = take(err_);
    putBack(out_);
    putBack(err_);
    newest = older_;
    EXPECT_EQ(restOfOut, "") << "undeclared on standard output";
    EXPECT_EQ(restOfErr, "") << "undeclared on standard error";
}

std::string StreamCapture::out() {
    return take(out_);
}

std::string StreamCapture::err() {
    return take(err_);
}

std::string StreamCapture::both() {
    const std::string text = err();
    EXPECT_EQ(out(), text) << "standard output is not what standard error is";
    return text;
}

CapturePause::CapturePause() {
    flushAll();
    const StreamCapture* oldest = StreamCapture::newest;
    while (oldest != nullptr && oldest->older_ != nullptr)
        oldest = oldest->older_;
    if (oldest == nullptr)
        return;
    ::dup2(oldest->out_.saved, STDOUT_FILENO);
    ::dup2(oldest->err_.saved, STDERR_FILENO);
}

CapturePause::~CapturePause() {
    flushAll();
    if (StreamCapture::newest == nullptr)
        return;
    ::dup2(StreamCapture::newest->out_.file, STDOUT_FILENO);
    ::dup2(StreamCapture::newest->err_.file, STDERR_FILENO);
}

void reportPastCaptures() {
    static std::optional<CapturePause> pause;
    ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
    ::testing::TestEventListener* const printer =
        listeners.Release(listeners.default_result_printer());
    listeners.Append(new BeforePrinter(pause));
    listeners.Append(printer);
    listeners.Append(new AfterPrinter(pause));
}

}  // namespace corvo::test
