#include "tests/faults/disturb/lease.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "tests/faults/disturb/become_popuser.h"
#include "tests/support/files.h"

namespace corvo::faults {

namespace {

constexpr useconds_t MOMENT = 50'000;  // microseconds

// popuser is asked for the file by a signal.
int holdLease(const std::string& path, Holder holder, const Background::Ready& ready) {
    becomePopuser();
    sigset_t asked;
    sigemptyset(&asked);
    sigaddset(&asked, SIGIO);
    (void)::sigprocmask(SIG_BLOCK, &asked, nullptr);
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (::fcntl(file, F_SETLEASE, F_WRLCK) != 0)
        return 1;
    ready();
    (void)::sigwaitinfo(&asked, nullptr);
    ::usleep(MOMENT);
    if (holder == Holder::givesWay)
        (void)::fcntl(file, F_SETLEASE, F_UNLCK);
    for (;;)
        ::pause();
}

}  // namespace

Lease::Lease(const std::string& path, Holder holder)
    : process_([&](const Background::Ready& ready) { return holdLease(path, holder, ready); }) {}

int leaseBreakTime() {
    return std::stoi(test::contentsOf("/proc/sys/fs/lease-break-time"));
}

}  // namespace corvo::faults
