// What the fuzz targets share. A target reads its input, runs one function of the house and checks
// what came of it; a property that does not hold ends the process, which counts as a finding.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "utils/guards.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvo::fuzz {

/// Aborts unless the property holds, after naming it on standard error.
void require(bool holds, const char* property);

/// Aborts when a step of the target itself failed, after naming it with the text of errno.
void must(bool done, const char* step);

/// The input as text.
std::string_view textOf(const std::uint8_t* data, std::size_t size);

/// What a function that takes a C string sees of the text.
std::string cutAtZero(std::string_view text);

/// Takes the first line off the text; the newline goes and is not part of the result.
std::string_view takeLine(std::string_view& text);

/// The text without the given characters at its beginning and end.
std::string_view trimmed(std::string_view text, std::string_view characters);

/// White space as the C locale has it.
inline constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";

/// A regular file in memory.
class MemoryFile {
public:
    explicit MemoryFile(std::string_view contents);

    const char* path() const { return path_.c_str(); }

private:
    UniqueFd file_;
    std::string path_;
};

/// An empty folder for files with names, made at the first call. From then on the process lives in
/// a mount namespace of its own, where /run is an empty file system with the lock folder. Needs
/// root; aborts without.
const std::string& scratchFolder();

void writeFile(const std::string& path, std::string_view contents);
std::string contentsOf(const std::string& path);

}  // namespace corvo::fuzz
