#include "utils/messlog.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/guards.h"

char* PROGNAME = nullptr;

namespace {

constexpr std::size_t FIRST_SIZE = 4096;  // bytes; only longer messages make the buffer grow

struct Message {
    corvo::UniqueCString text;
    std::size_t capacity;  // bytes, the terminating zero included
};

// False, and nothing has changed, when there is no memory.
bool grow(Message& message, std::size_t capacity) {
    auto* larger = static_cast<char*>(std::realloc(message.text.get(), capacity));
    if (larger == nullptr)
        return false;
    (void)message.text.release();
    message.text.reset(larger);
    message.capacity = capacity;
    return true;
}

__attribute__((format(printf, 2, 0))) int formatOnce(Message& message, const char* format,
                                                     va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    const int needed = std::vsnprintf(message.text.get(), message.capacity, format, copy);
    va_end(copy);
    return needed;
}

__attribute__((format(printf, 2, 0))) void formatMessage(Message& message, const char* format,
                                                         va_list arguments) {
    const int needed = formatOnce(message, format, arguments);
    if (needed >= static_cast<int>(message.capacity) &&
        grow(message, static_cast<std::size_t>(needed) + 1))
        (void)formatOnce(message, format, arguments);
}

void appendSystemError(Message& message, int error) {
    const std::size_t length = std::strlen(message.text.get());
    const auto append = [&] {
        const int size = std::snprintf(message.text.get() + length, message.capacity - length,
                                       "\nSystem error %d: %s", error, std::strerror(error));
        return length + static_cast<std::size_t>(size) + 1;
    };
    const std::size_t needed = append();
    if (needed <= message.capacity)
        return;
    if (grow(message, needed))
        (void)append();
    else
        message.text.get()[length] = '\0';
}

void writeMessage(std::FILE* stream, const char* text) {
    if (PROGNAME != nullptr) {
        const char* slash = std::strrchr(PROGNAME, '/');
        (void)std::fprintf(stream, "%s: ", slash != nullptr ? slash + 1 : PROGNAME);
    }
    const std::size_t length = std::strlen(text);
    const bool ended = length > 0 && text[length - 1] == '\n';
    (void)std::fprintf(stream, "%s%s", text, ended ? "" : "\n");
    (void)std::fflush(stream);
}

}  // namespace

int ex_messlog(const char* text, int status, int /*flag*/) {
    const corvo::ErrnoGuard keepErrno;
    writeMessage(stderr, text);
    writeMessage(stdout, text);
    if (status != 0)
        std::exit(status);
    return 0;
}

int vmesslog2(int status, int flag, const char* format, va_list arguments) {
    const int error = errno;
    const corvo::ErrnoGuard keepErrno;
    Message message{corvo::UniqueCString(static_cast<char*>(std::malloc(FIRST_SIZE))), FIRST_SIZE};
    if (message.text == nullptr)
        return ex_messlog("Can't allocate memory for error message", status, flag);
    formatMessage(message, format, arguments);
    errno = error;
    if (error != 0)
        appendSystemError(message, error);
    return ex_messlog(message.text.get(), status, flag);
}

int messlog2(int status, int flag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vmesslog2(status, flag, format, arguments);
    va_end(arguments);
    return result;
}
