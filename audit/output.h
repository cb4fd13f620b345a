// What the program prints: records and a summary on standard output, what it could not look at on
// standard error.

#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "audit/options.h"
#include "audit/record.h"

namespace corvo::audit {

enum class Tone { plain, good, warning, problem };

/// Standard output as it is when this is made. What it does not take is told at the end, once: in
/// the middle of a walk that would be taken for a failure of the walk. When nobody reads it any
/// more, the process ends by SIGPIPE.
class StandardOutput {
public:
    void write(std::string_view text);

    /// False, after a word on standard error, when not everything was taken.
    bool finish();

private:
    void fail(int error);

    std::FILE* file_ = stdout;
    int error_ = 0;  // the errno of the first failure
};

class Output {
public:
    /// Takes format, colour and quietness from the options; colour `automatic` is for a terminal
    /// and where the environment has no NO_COLOR.
    explicit Output(const Options& options);

    /// One record: in JSON an object, in a table the line, which is printable and has no line end.
    /// A quiet output leaves out what is good, but for the JSON document, which is always whole.
    void print(const Record& record, const std::string& line, Tone tone);

    /// Says, on standard error, at once, what was not looked at and why. Bytes are escaped here.
    void omit(const std::string& what);
    /// Was anything?
    bool isWhole() const noexcept { return omitted_.empty(); }

    /// Ends what is printed: once, at the end. The summary goes where there is a place for it;
    /// what was broken off has none, and an empty line. False, after a word on standard error,
    /// when standard output did not take everything.
    bool finish(const std::optional<Record>& summary, const std::string& line);

private:
    void printLine(const std::string& line, Tone tone);

    StandardOutput out_;
    Format format_;
    bool isColoured_;
    bool isQuiet_;
    std::size_t printed_ = 0;
    std::vector<std::string> omitted_;
};

}  // namespace corvo::audit
