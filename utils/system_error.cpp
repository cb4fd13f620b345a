#include "utils/system_error.h"

#include <cerrno>
#include <cstring>

namespace corvo {

// errno is read as an argument: copying the message into the base could change it.
SystemError::SystemError(const std::string& message, int code)
    : SystemError(Code{code != 0 ? code : errno}, message) {}

SystemError::SystemError(Code code, const std::string& message)
    : std::runtime_error(message), errorCode(code.value) {}

const char* SystemError::what() const noexcept {
    if (fullText.empty()) {
        fullText = std::runtime_error::what();
        if (!fullText.empty())
            fullText += ": ";
        fullText += std::strerror(errorCode);
    }
    return fullText.c_str();
}

}  // namespace corvo
