// file_strings against the same action on a list of lines. The input is a line with a letter for
// the action and a digit for the number of listed strings, so many lines with one string each, and
// the file. A capital letter lists the strings with their newlines.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <vector>

#include "fuzz/support.h"
#include "utils/line_file.h"

namespace {

using corvo::fuzz::require;
using Texts = std::vector<std::string>;

constexpr mode_t MODE = 0640;

struct Action {
    char letter;
    int action;
    int where;
};

constexpr Action ACTIONS[] = {
    {'a', FILE_STRINGS_ADD, FILE_STRINGS_APPEND},
    {'p', FILE_STRINGS_ADD, FILE_STRINGS_PREPEND},
    {'e', FILE_STRINGS_REMOVE, FILE_STRINGS_APPEND},
    {'b', FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX},
    {'f', FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUFFIX},
    {'s', FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUBSTRING},
};

struct Case {
    Action action;
    Texts listed;
    std::string contents;
};

std::optional<Case> readCase(std::string_view input) {
    const std::string_view head = corvo::fuzz::takeLine(input);
    if (head.size() != 2 || head[1] < '0' || head[1] > '9')
        return std::nullopt;
    const auto letter = static_cast<unsigned char>(head[0]);
    const auto* action = std::find_if(
        std::begin(ACTIONS), std::end(ACTIONS),
        [letter](const Action& known) { return known.letter == std::tolower(letter); });
    if (action == std::end(ACTIONS))
        return std::nullopt;
    Case result{*action, {}, {}};
    for (int left = head[1] - '0'; left > 0; --left)
        result.listed.push_back(corvo::fuzz::cutAtZero(corvo::fuzz::takeLine(input)) +
                                (std::isupper(letter) != 0 ? "\n" : ""));
    result.contents = input;
    return result;
}

std::string withNewline(const std::string& text) {
    return text.ends_with('\n') ? text : text + "\n";
}

std::string withoutNewline(const std::string& text) {
    return text.ends_with('\n') ? text.substr(0, text.size() - 1) : text;
}

// The lines with their newlines.
Texts linesOf(const std::string& contents) {
    Texts lines;
    for (std::size_t start = 0; start < contents.size(); start += lines.back().size()) {
        const std::size_t end = contents.find('\n', start);
        lines.push_back(contents.substr(start, end == std::string::npos ? end : end + 1 - start));
    }
    return lines;
}

bool isDropped(const Action& action, const std::string& line, const std::string& listed) {
    switch (action.letter) {
        case 'b':
            return line.substr(0, listed.size()) == listed;
        case 'f':
            return withoutNewline(line).ends_with(listed);
        case 's':
            return line.find(listed) != std::string::npos;
        default:
            return withoutNewline(line) == withoutNewline(listed);
    }
}

std::string expectedContents(const Case& given) {
    std::string added;
    for (const std::string& text : given.listed)
        added += withNewline(text);
    if (given.action.letter == 'a')
        return given.contents + added;
    if (given.action.letter == 'p')
        return added + given.contents;
    std::string kept;
    for (const std::string& line : linesOf(given.contents)) {
        const bool dropped =
            std::any_of(given.listed.begin(), given.listed.end(),
                        [&](const auto& text) { return isDropped(given.action, line, text); });
        if (!dropped)
            kept += line;
    }
    return kept;
}

void perform(const std::string& path, const Texts& listed, int action, int where) {
    std::vector<const char*> list;
    for (const std::string& text : listed)
        list.push_back(text.c_str());
    list.push_back(nullptr);
    require(file_strings(path.c_str(), list.data(), action, where) == 0, "the file is changed");
    require(::access((path + ".tmp").c_str(), F_OK) != 0, "no temporary file is left");
    struct stat status = {};
    require(::stat(path.c_str(), &status) == 0 && (status.st_mode & 07777U) == MODE,
            "the file keeps its mode");
}

// Whether the listed lines, once added, can be told from those that were there.
bool canBeTakenBack(const Case& given) {
    Case removal = given;
    removal.action = ACTIONS[2];
    return (given.contents.empty() || given.contents.ends_with('\n')) &&
           expectedContents(removal) == given.contents;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto given = readCase(corvo::fuzz::textOf(data, size));
    if (!given)
        return 0;
    static const std::string path = corvo::fuzz::scratchFolder() + "/lines";
    corvo::fuzz::writeFile(path, given->contents);
    corvo::fuzz::must(::chmod(path.c_str(), MODE) == 0, "chmod");

    perform(path, given->listed, given->action.action, given->action.where);
    require(corvo::fuzz::contentsOf(path) == expectedContents(*given),
            "the listed lines come or go, all others stay in their order");
    if (given->action.action == FILE_STRINGS_ADD && canBeTakenBack(*given)) {
        perform(path, given->listed, FILE_STRINGS_REMOVE, FILE_STRINGS_APPEND);
        require(corvo::fuzz::contentsOf(path) == given->contents,
                "removing what was added restores the file");
    }
    return 0;
}
