#include "utils/system_error.h"

#include <cerrno>
#include <cstring>

namespace corvo {

// errno is read as an argument: copying the message into the base could change it.
SystemError::SystemError(const std::string& message, int code)
    : SystemError(Code{code != 0 ? code : errno}, message) {}

SystemError::SystemError(Code code, const std::string& message)
    : std::runtime_error(message), errorCode_(code.value) {}

const char* SystemError::what() const noexcept {
    if (fullText_.empty()) {
        fullText_ = std::runtime_error::what();
        if (!fullText_.empty())
            fullText_ += ": ";
        fullText_ += std::strerror(errorCode_);
    }
    return fullText_.c_str();
}

}  // namespace corvo
