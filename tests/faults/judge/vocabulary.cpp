#include "tests/faults/judge/vocabulary.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string_view>

namespace corvo::faults {

namespace {

constexpr std::size_t SHOWN = 120;  // characters
constexpr int WORST_STATUS = 2;
constexpr int SIGNALLED = 128;

constexpr std::string_view FOLDERS_OF_MESSAGES[] = {"/new/", "/cur/", "/@attachments/"};
constexpr const char* SIGNS_OF_BREAKAGE[] = {"Sanitizer", "runtime error:", "terminate called"};

bool endedByItself(const Outcome& outcome) {
    return outcome.status >= 0 && outcome.status <= WORST_STATUS;
}

std::string attributesOf(const Entry& entry) {
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%06o %u:%u inode %lu ", entry.mode, entry.uid,
                        entry.gid, static_cast<unsigned long>(entry.inode));
    return text.data();
}

}  // namespace

void append(Violations& all, const Violations& more) {
    all.insert(all.end(), more.begin(), more.end());
}

bool liesAmongMessages(const std::string& path) {
    for (const std::string_view folder : FOLDERS_OF_MESSAGES)
        if (path.find(folder) != std::string::npos)
            return true;
    return false;
}

bool isStoredMessage(const std::string& path, const Entry& entry) {
    return !S_ISDIR(entry.mode) && liesAmongMessages(path);
}

bool isMessageFile(const std::string& path, const Entry& entry) {
    return S_ISREG(entry.mode) && liesAmongMessages(path);
}

std::string homeOf(const std::string& path) {
    return path.substr(0, path.find('/', path.find('/') + 1));
}

std::string addressOf(const std::string& home) {
    const std::size_t slash = home.find('/');
    return home.substr(slash + 1) + "@" + home.substr(0, slash);
}

bool isIn(const std::string& folder, const std::string& path) {
    return path == folder || path.starts_with(folder + "/");
}

std::string shown(const std::string& text) {
    std::string line;
    for (const char c : text.substr(0, SHOWN))
        line += c == '\n' ? "\\n" : c == '\0' ? "\\0" : std::string(1, c);
    return "<" + line + (text.size() > SHOWN ? "...>" : ">");
}

std::string shown(const Entry* entry) {
    return entry == nullptr ? "nothing" : attributesOf(*entry) + shown(entry->content);
}

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

bool isOwnHandler(const std::string& row) {
    return row.find("|check-quota|") != std::string::npos;
}

Violations judgeEnd(const Outcome& outcome, int expectedSignal) {
    Violations found;
    const bool isKilledAsExpected =
        expectedSignal != 0 && outcome.status == SIGNALLED + expectedSignal;
    if (outcome.hung)
        found.push_back("I7 the run hangs; so far it said " + shown(outcome.err));
    else if (!endedByItself(outcome) && !isKilledAsExpected)
        found.push_back("I7 exit status " + std::to_string(outcome.status) + ", " +
                        shown(outcome.err));
    for (const char* sign : SIGNS_OF_BREAKAGE)
        if (outcome.err.find(sign) != std::string::npos)
            found.push_back("I7 " + shown(outcome.err.substr(outcome.err.find(sign))));
    return found;
}

}  // namespace corvo::faults
