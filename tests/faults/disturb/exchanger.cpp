#include "tests/faults/disturb/exchanger.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <new>
#include <system_error>

#include "tests/faults/disturb/become_popuser.h"

namespace corvo::faults {

/// What both processes see.
struct Exchanger::Shared {
    std::atomic<bool> wanted = false;
    std::atomic<bool> busy = false;
    std::atomic<std::size_t> exchanges = 0;
};

namespace {

// Neither more than a run needs between two steps nor as little as keeps it out of the directory.
constexpr timespec SHORT_REST = {0, 20'000};

void rest() {
    (void)::nanosleep(&SHORT_REST, nullptr);
}

template <typename Shared>
Shared* share() {
    void* const memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    return new (memory) Shared;
}

/// Does as it is told until it is killed.
template <typename Shared>
int exchangeOnDemand(Shared& shared, const std::string& one, const std::string& other,
                     const Background::Ready& ready) {
    becomePopuser();
    ready();
    for (;;) {
        shared.busy = shared.wanted.load();
        if (shared.busy &&
            ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0)
            ++shared.exchanges;
        rest();
    }
}

}  // namespace

Exchanger::Exchanger(const std::string& one, const std::string& other)
    : shared_(share<Shared>()), process_([&](const Background::Ready& ready) {
          return exchangeOnDemand(*shared_, one, other, ready);
      }) {}

Exchanger::~Exchanger() {
    (void)::munmap(shared_, sizeof(Shared));
}

void Exchanger::start() {
    shared_->wanted = true;
    while (!shared_->busy)
        rest();
}

void Exchanger::stop() {
    shared_->wanted = false;
    while (shared_->busy)
        rest();
}

std::size_t Exchanger::count() const {
    return shared_->exchanges;
}

}  // namespace corvo::faults
