#include "tests/faults/disturb/loop_device.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace corvo::faults {

namespace {

constexpr unsigned LOOP_MAJOR = 7;
constexpr mode_t DEVICE_MODE = S_IFBLK | 0600;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd openOrFail(const std::string& path) {
    UniqueFd opened(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (opened.get() < 0)
        fail(path);
    return opened;
}

/// The path of a device that was free a moment ago; its node may have to be made.
std::string freeDevice(const UniqueFd& control) {
    const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0)
        fail("LOOP_CTL_GET_FREE");
    std::string path = "/dev/loop" + std::to_string(number);
    const dev_t device = ::makedev(LOOP_MAJOR, static_cast<unsigned>(number));
    if (::mknod(path.c_str(), DEVICE_MODE, device) != 0 && errno != EEXIST)
        fail("mknod " + path);
    return path;
}

/// False when somebody else was faster.
bool attach(const UniqueFd& device, const UniqueFd& file) {
    loop_config configuration = {};
    configuration.fd = static_cast<unsigned>(file.get());
    configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (::ioctl(device.get(), LOOP_CONFIGURE, &configuration) == 0)
        return true;
    if (errno != EBUSY)
        fail("LOOP_CONFIGURE");
    return false;
}

}  // namespace

LoopDevice::LoopDevice(const std::string& file) {
    const UniqueFd backing = openOrFail(file);
    const UniqueFd control = openOrFail("/dev/loop-control");
    do {
        path_ = freeDevice(control);
        device_ = openOrFail(path_);
    } while (!attach(device_, backing));
}

std::string LoopDevice::writes() const {
    // Reads, merges, sectors and time of reading come first, then the same of writing.
    constexpr std::size_t FIRST = 4;
    constexpr std::size_t LAST = 6;
    constexpr std::size_t UNDER_WAY = 8;
    std::ifstream statistics("/sys/block/" + path_.substr(path_.rfind('/') + 1) + "/stat");
    std::string counted;
    std::string number;
    for (std::size_t i = 0; statistics >> number; ++i)
        if ((i >= FIRST && i <= LAST) || i == UNDER_WAY)
            counted += number + " ";
    return counted;
}

}  // namespace corvo::faults
