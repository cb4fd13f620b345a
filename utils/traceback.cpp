#include "utils/traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>

#include "utils/guards.h"

namespace corvo {
namespace {

// Turns mangled names into readable ones, all in one buffer that grows as needed.
class Demangler {
public:
    // Null when `mangled` is no mangled name. Good until the next call.
    const char* operator()(const std::string& mangled) {
        int status = 0;
        char* readable = abi::__cxa_demangle(mangled.c_str(), buffer_.get(), &size_, &status);
        if (readable != nullptr) {
            (void)buffer_.release();  // grown or freed by the call
            buffer_.reset(readable);
        }
        return readable;
    }

private:
    UniqueCString buffer_;
    std::size_t size_ = 0;
};

// Prints "<module>(<name>+<offset>) [<address>]" with the name demangled where it can be.
void printSymbol(std::ostream& stream, std::string_view line, Demangler& demangle) {
    const std::size_t parenthesis = line.find('(');
    const std::size_t plus = line.find('+', parenthesis);
    if (plus == std::string_view::npos) {
        stream << line;
        return;
    }
    const std::size_t name = parenthesis + 1;
    const char* readable = demangle(std::string(line.substr(name, plus - name)));
    if (readable == nullptr)
        stream << line;
    else
        stream << line.substr(0, name) << readable << line.substr(plus);
}

}  // namespace

Traceback::Traceback(std::size_t innermost) noexcept {
    const int captured = ::backtrace(frames.data(), static_cast<int>(frames.size()));
    count = static_cast<std::size_t>(std::max(captured, 0));
    skip = std::min(innermost, count);
}

Traceback::Traceback(const Traceback& other) noexcept
    : count(other.count), skip(other.skip), frames(other.frames) {}

Traceback& Traceback::operator=(const Traceback& other) noexcept {
    if (this != &other) {
        count = other.count;
        skip = other.skip;
        frames = other.frames;
        std::free(symbols);
        symbols = nullptr;
    }
    return *this;
}

Traceback::~Traceback() {
    const ErrnoGuard keepErrno;
    std::free(symbols);
}

void Traceback::printAddresses(std::ostream& stream) const {
    stream << "Traceback addresses:\n" << std::flush;
    for (std::size_t i = skip; i < count; ++i)
        stream << '\t' << frames[i] << '\n' << std::flush;
}

void Traceback::printSymbols(std::ostream& stream) const {
    Demangler demangle;
    stream << "Traceback:\n" << std::flush;
    for (std::size_t i = skip; i < count; ++i) {
        stream << '\t';
        printSymbol(stream, symbols[i], demangle);
        stream << '\n' << std::flush;
    }
}

std::ostream& operator<<(std::ostream& stream, const Traceback& traceback) {
    if (traceback.symbols == nullptr)
        traceback.symbols =
            ::backtrace_symbols(traceback.frames.data(), static_cast<int>(traceback.count));
    if (traceback.symbols == nullptr || traceback.skip == traceback.count)
        traceback.printAddresses(stream);
    else
        traceback.printSymbols(stream);
    return stream;
}

}  // namespace corvo
