#include "tests/support/capabilities.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace corvo::test {

namespace {

void setCapabilities(const __user_cap_data_struct* data) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    EXPECT_EQ(::syscall(SYS_capset, &header, data), 0);
}

}  // namespace

WithoutCapabilities::WithoutCapabilities(std::initializer_list<unsigned> capabilities) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    EXPECT_EQ(::syscall(SYS_capget, &header, saved_), 0);
    __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
    for (const unsigned capability : capabilities)
        reduced[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
    setCapabilities(reduced);
}

WithoutCapabilities::~WithoutCapabilities() {
    setCapabilities(saved_);
}

}  // namespace corvo::test
