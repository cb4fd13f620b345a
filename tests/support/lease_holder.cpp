#include "tests/support/lease_holder.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "utils/guards.h"

namespace corvo::test {

namespace {

constexpr useconds_t MOMENT = 100'000;  // microseconds
constexpr timespec PATIENCE = {10, 0};

/// Ends with 0 when it was asked for the lease.
[[noreturn]] void hold(const std::string& path, UniqueFd ready) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGIO);
    ::sigprocmask(SIG_BLOCK, &wanted, nullptr);
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (::fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0)
        ::_exit(1);
    (void)!::write(ready.get(), "!", 1);
    if (::sigtimedwait(&wanted, nullptr, &PATIENCE) != SIGIO)
        ::_exit(2);
    ::usleep(MOMENT);
    ::_exit(::fcntl(file.get(), F_SETLEASE, F_UNLCK) == 0 ? 0 : 3);
}

}  // namespace

LeaseHolder::LeaseHolder(const std::string& path) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    child_ = ::fork();
    if (child_ == 0)
        hold(path, std::move(writer));
    writer.reset();
    char sign = 0;
    if (::read(reader.get(), &sign, 1) != 1) {
        (void)gaveWay();
        throw std::runtime_error("no lease on " + path);
    }
}

LeaseHolder::~LeaseHolder() {
    if (child_ < 0)
        return;
    ::kill(child_, SIGKILL);
    (void)gaveWay();
}

bool LeaseHolder::gaveWay() {
    int status = -1;
    const pid_t child = std::exchange(child_, -1);
    return ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace corvo::test
