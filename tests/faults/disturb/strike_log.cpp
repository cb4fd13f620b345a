#include "tests/faults/disturb/strike_log.h"

#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <new>
#include <sstream>
#include <system_error>

namespace corvo::faults {

struct StrikeLog::Shared {
    bool met = false;
    std::size_t length = 0;
    std::array<char, std::size_t{1} << 20U> paths;  // each with a zero byte at its end
};

StrikeLog::StrikeLog() {
    void* const memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    shared_ = new (memory) Shared;
}

StrikeLog::~StrikeLog() {
    ::munmap(shared_, sizeof(Shared));
}

void StrikeLog::setMet() {
    shared_->met = true;
}

bool StrikeLog::isMet() const {
    return shared_->met;
}

void StrikeLog::noteUnread(const std::string& path) {
    const std::size_t size = path.size() + 1;
    if (size > shared_->paths.size() - shared_->length)
        return;
    path.copy(shared_->paths.data() + shared_->length, path.size());
    shared_->length += size;
    shared_->paths.at(shared_->length - 1) = '\0';
}

std::vector<std::string> StrikeLog::unread() const {
    std::istringstream stream(std::string(shared_->paths.data(), shared_->length));
    std::vector<std::string> all;
    for (std::string path; std::getline(stream, path, '\0');)
        all.push_back(path);
    return all;
}

}  // namespace corvo::faults
