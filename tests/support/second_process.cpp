#include "tests/support/second_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "utils/guards.h"

namespace corvo::test {

namespace {

int check(int result, const char* call) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

// Noexcept: what the body throws ends the process with a word on standard error.
[[noreturn]] void work(const std::function<void(const SecondProcess::Ready&)>& body,
                       int writer) noexcept {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body([writer] { (void)!::write(writer, "!", 1); });
    ::_exit(0);
}

}  // namespace

SecondProcess::SecondProcess(const std::function<void(const Ready&)>& body) {
    int ends[2] = {-1, -1};
    check(::pipe2(ends, O_CLOEXEC), "pipe2");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    child_ = check(::fork(), "fork");
    if (child_ == 0)
        work(body, writer.get());
    writer.reset();
    char sign = 0;
    if (::read(reader.get(), &sign, 1) == 1)
        return;
    (void)endedWell();
    throw std::runtime_error("the second process ended before it was ready");
}

SecondProcess::~SecondProcess() {
    if (child_ < 0)
        return;
    (void)::kill(child_, SIGKILL);
    (void)endedWell();
}

bool SecondProcess::endedWell() {
    int status = -1;
    const pid_t child = std::exchange(child_, -1);
    return ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace corvo::test
