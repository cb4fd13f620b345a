// Standard output for this program alone.

#pragma once

#include <cstdio>
#include <streambuf>

namespace corvo::audit {

/// While it lives, what the libraries print on standard output is thrown away: it stands on
/// standard error, too. Who took `stdout` before goes on printing there. Throws std::bad_alloc.
class LibraryOutput {
public:
    LibraryOutput();
    ~LibraryOutput();
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;

private:
    std::FILE* file_;
    std::streambuf* buffer_;
};

}  // namespace corvo::audit
