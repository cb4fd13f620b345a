#include "tests/faults/disturb/socket_detour.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace corvo::faults {

namespace {

constexpr int BACKLOG = 16;

std::system_error failure(const std::string& what) {
    return {errno, std::generic_category(), what};
}

// Runs bind() or connect() with the path.
template <typename Call>
int withAddress(const std::string& path, Call call) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return call(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

UniqueFd newSocket() {
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

}  // namespace

UniqueFd listenAt(const std::string& path) {
    UniqueFd listener = newSocket();
    const int bound = withAddress(path, [&](const sockaddr* address, socklen_t size) {
        return ::bind(listener.get(), address, size);
    });
    if (bound != 0 || ::listen(listener.get(), BACKLOG) != 0)
        throw failure("listen at " + path);
    return listener;
}

SocketDetour::SocketDetour(std::string original, const std::string& other)
    : original_(std::move(original)) {
    if (::mount(other.c_str(), original_.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw failure("bind " + other + " to " + original_);
}

SocketDetour::~SocketDetour() {
    ::umount2(original_.c_str(), MNT_DETACH);
}

SocketFile::SocketFile(const std::string& path) : file_(::open(path.c_str(), O_PATH | O_CLOEXEC)) {
    if (!file_)
        throw failure(path);
}

UniqueFd SocketFile::connect() const {
    UniqueFd connection = newSocket();
    const std::string path = "/proc/self/fd/" + std::to_string(file_.get());
    const int connected = withAddress(path, [&](const sockaddr* address, socklen_t size) {
        return ::connect(connection.get(), address, size);
    });
    return connected == 0 ? std::move(connection) : UniqueFd();
}

}  // namespace corvo::faults
