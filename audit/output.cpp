#include "audit/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "audit/text.h"

namespace corvo::audit {

namespace {

using Json = nlohmann::ordered_json;

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

}  // namespace

Output::Output(const Options& options)
    : format_(options.format), isColoured_(isWanted(options.colour)), isQuiet_(options.quiet) {}

void Output::print(const Json& object, const std::string& line, Tone tone) {
    switch (format_) {
        case Format::table:
            printLine(line, tone);
            break;
        case Format::jsonl:
            fmt::print(stdout, "{}\n", object.dump());
            break;
        case Format::json:
            fmt::print(stdout, "{}\n  {}", printed_ == 0 ? "{\"items\": [" : ",", object.dump());
            break;
    }
    ++printed_;
}

void Output::printLine(const std::string& line, Tone tone) const {
    const std::string_view colour = isColoured_ ? sequenceOf(tone) : std::string_view();
    fmt::print(stdout, "{}{}{}\n", colour, line, colour.empty() ? "" : "\x1b[0m");
}

void Output::omit(const std::string& what) {
    fmt::print(stderr, "mail_audit: {}\n", printable(what));
    omitted_.push_back(what);
}

bool Output::finish(const Json& summary, const std::string& line) {
    if (format_ == Format::table && !isQuiet_ && !line.empty())
        printLine(line, Tone::plain);
    if (format_ == Format::json) {
        Json omitted = Json::array();
        for (const std::string& what : omitted_)
            omitted.push_back(jsonText(what));
        fmt::print(stdout, "{}], \"summary\": {},\n \"not_looked_at\": {}}}\n",
                   printed_ == 0 ? "{\"items\": [" : "\n ", summary.dump(), omitted.dump());
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return true;
    fmt::print(stderr, "mail_audit: standard output: {}\n", std::strerror(errno));
    return false;
}

Json jsonText(const std::string& text) {
    return validUtf8(text);
}

}  // namespace corvo::audit
