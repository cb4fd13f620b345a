#include "tests/support/lease_holder.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

#include "utils/guards.h"

namespace corvo::test {

namespace {

constexpr useconds_t MOMENT = 100'000;  // microseconds
constexpr timespec PATIENCE = {10, 0};

/// Returns when it was asked for the lease.
void hold(const std::string& path, const SecondProcess::Ready& ready) {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGIO);
    ::sigprocmask(SIG_BLOCK, &wanted, nullptr);
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (::fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0)
        ::_exit(1);
    ready();
    if (::sigtimedwait(&wanted, nullptr, &PATIENCE) != SIGIO)
        ::_exit(2);
    ::usleep(MOMENT);
    if (::fcntl(file.get(), F_SETLEASE, F_UNLCK) != 0)
        ::_exit(3);
}

}  // namespace

LeaseHolder::LeaseHolder(const std::string& path)
    : process_([&](const SecondProcess::Ready& ready) { hold(path, ready); }) {}

}  // namespace corvo::test
