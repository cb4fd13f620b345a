// A failure with its errno.

#pragma once

#include <stdexcept>
#include <string>

namespace corvo {

/// what() is message + ": " + strerror(code), or strerror(code) alone for an empty message.
class SystemError : public std::runtime_error {
public:
    /// A code of 0 stands for the errno of this moment.
    explicit SystemError(const std::string& message, int code = 0);

    /// The errno value.
    int code() const noexcept { return errorCode_; }

    /// Built at the first call and kept. Running out of memory there ends the process.
    const char* what() const noexcept override;

private:
    struct Code {
        int value;
    };
    SystemError(Code code, const std::string& message);

    int errorCode_;
    mutable std::string fullText_;
};

}  // namespace corvo
