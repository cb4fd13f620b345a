// Less power than root's, for a while.

#pragma once

#include <linux/capability.h>

#include <initializer_list>

namespace corvo::test {

/// Takes capabilities (CAP_CHOWN, ...) out of effect and puts them back.
class WithoutCapabilities {
public:
    WithoutCapabilities(std::initializer_list<unsigned> capabilities);
    ~WithoutCapabilities();
    WithoutCapabilities(const WithoutCapabilities&) = delete;
    WithoutCapabilities& operator=(const WithoutCapabilities&) = delete;

private:
    __user_cap_data_struct saved_[2] = {};
};

}  // namespace corvo::test
