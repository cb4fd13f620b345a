#include "audit/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "audit/progress.h"
#include "audit/text.h"

namespace corvo::audit {

namespace {

bool isWanted(Colour colour) {
    if (colour != Colour::automatic)
        return colour == Colour::always;
    const char* const none = std::getenv("NO_COLOR");
    return (none == nullptr || *none == '\0') && ::isatty(STDOUT_FILENO) == 1;
}

// How the terminal is told of a tone.
std::string_view sequenceOf(Tone tone) {
    switch (tone) {
        case Tone::good:
            return "\x1b[32m";
        case Tone::warning:
            return "\x1b[33m";
        case Tone::problem:
            return "\x1b[31m";
        case Tone::plain:
            break;
    }
    return {};
}

void tell(const std::string& what) {
    clearProgress();
    std::fputs(("mail_audit: " + what + "\n").c_str(), stderr);
}

// Whoever reads has seen enough: the end that other programs then have. The database client
// ignores the signal for the whole process.
void endWithoutReader() {
    clearProgress();
    (void)std::signal(SIGPIPE, SIG_DFL);
    (void)std::raise(SIGPIPE);
}

}  // namespace

void StandardOutput::write(std::string_view text) {
    if (error_ == 0 && std::fwrite(text.data(), 1, text.size(), file_) != text.size())
        fail(errno);
}

void StandardOutput::fail(int error) {
    if (error == EPIPE)
        endWithoutReader();
    error_ = error;
}

bool StandardOutput::finish() {
    if (error_ == 0 && std::fflush(file_) != 0)
        fail(errno);
    if (error_ != 0)
        tell(std::string("standard output: ") + std::strerror(error_));
    return error_ == 0;
}

Output::Output(const Options& options)
    : format_(options.format), isColoured_(isWanted(options.colour)), isQuiet_(options.quiet) {}

void Output::print(const Record& record, const std::string& line, Tone tone) {
    if (isQuiet_ && tone == Tone::good && format_ != Format::json)
        return;
    clearProgress();
    switch (format_) {
        case Format::table:
            printLine(line, tone);
            break;
        case Format::jsonl:
            out_.write(jsonOf(record) + "\n");
            break;
        case Format::json:
            out_.write((printed_ == 0 ? "{\"items\": [\n  " : ",\n  ") + jsonOf(record));
            break;
    }
    ++printed_;
}

void Output::printLine(const std::string& line, Tone tone) {
    const std::string_view colour = isColoured_ ? sequenceOf(tone) : std::string_view();
    out_.write(fmt::format("{}{}{}\n", colour, line, colour.empty() ? "" : "\x1b[0m"));
}

void Output::omit(const std::string& what) {
    tell(printable(what));
    omitted_.push_back(what);
}

bool Output::finish(const std::optional<Record>& summary, const std::string& line) {
    clearProgress();
    if (format_ == Format::table && !isQuiet_ && !line.empty())
        printLine(line, Tone::plain);
    if (format_ == Format::json)
        out_.write(fmt::format("{}], \"summary\": {},\n \"not_looked_at\": {}}}\n",
                               printed_ == 0 ? "{\"items\": [" : "\n ",
                               summary ? jsonOf(*summary) : "null", jsonOf(omitted_)));
    return out_.finish();
}

}  // namespace corvo::audit
