#include "tests/faults/disturb/background.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <system_error>

#include "utils/guards.h"

namespace corvo::faults {

namespace {

[[noreturn]] void runBody(const std::function<int(const Background::Ready&)>& body,
                          UniqueFd ready) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = 1;
    try {
        status = body([&ready] { ready.reset(); });
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
    }
    ::_exit(status);
}

// The other end is closed by whoever is ready, or dead.
void waitForEnd(const UniqueFd& pipe) {
    char nothing = 0;
    (void)!retryOnEintr([&] { return ::read(pipe.get(), &nothing, 1); });
}

}  // namespace

Background::Background(const std::function<int(const Ready&)>& body) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    std::cout.flush();
    (void)std::fflush(nullptr);
    child_ = ::fork();
    if (child_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child_ == 0)
        runBody(body, std::move(writeEnd));
    writeEnd.reset();
    waitForEnd(readEnd);
}

Background::~Background() {
    if (child_ < 0)
        return;
    ::kill(child_, SIGKILL);
    finish();
}

int Background::finish() {
    int status = 0;
    (void)retryOnEintr([&] { return ::waitpid(child_, &status, 0); });
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace corvo::faults
