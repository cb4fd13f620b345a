// A snapshot of the calling stack.

#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>

namespace corvo {

/// Holds up to 11 return addresses of the place where it was made. An exception that also derives
/// from it tells where it came from.
class Traceback {
public:
    /// `innermost`: how many innermost frames are left out when printing, of which this constructor
    /// is the first.
    explicit Traceback(std::size_t innermost = 0) noexcept;
    /// The copy resolves its symbols anew.
    Traceback(const Traceback& other) noexcept;
    Traceback& operator=(const Traceback& other) noexcept;
    virtual ~Traceback();

    /// Prints "Traceback:" and a line "\t<module>(<demangled name>+<offset>) [<address>]" for each
    /// frame; without symbols, or with nothing left after skipping, "Traceback addresses:" and
    /// the addresses. Flushes after each line. The symbols are resolved at the first printing and
    /// kept.
    friend std::ostream& operator<<(std::ostream& stream, const Traceback& traceback);

private:
    void printAddresses(std::ostream& stream) const;
    void printSymbols(std::ostream& stream) const;

    // Described to other programs by these names and types.
    std::size_t count = 0;  // frames captured
    std::size_t skip = 0;   // at most count
    std::array<void*, 11> frames = {};
    mutable char** symbols = nullptr;  // one block of backtrace_symbols
};

}  // namespace corvo
