#include "tests/equality/comparison.h"

#include <sys/stat.h>

#include <cstdio>

#include "tests/faults/disturb/row_generator.h"
#include "tests/faults/judge/tree_comparison.h"

namespace corvo::equality {

namespace {

using faults::Entry;
using faults::entryAt;

std::string factOf(const Ending& ending, const std::string& name) {
    const auto found = ending.facts.find(name);
    return found == ending.facts.end() ? std::string() : found->second;
}

std::string inWords(const Entry* entry) {
    if (entry == nullptr)
        return "nothing";
    char attributes[64];
    (void)std::snprintf(attributes, sizeof attributes, "%06o %u:%u", entry->mode, entry->uid,
                        entry->gid);
    return std::string(attributes) + ", " + std::to_string(entry->content.size()) + " bytes: \"" +
           faults::printable(entry->content) + "\"";
}

std::string indented(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += c == '\n' ? std::string("\n      ") : std::string(1, c);
    return result;
}

}  // namespace

std::vector<Difference> differences(const Trial& trial) {
    std::vector<Difference> found;
    for (const std::string& path :
         faults::pathsThat(faults::isDifferent, trial.former.tree, trial.present.tree))
        found.push_back({path, false});
    for (const auto& [name, text] : trial.former.facts)
        if (text != factOf(trial.present, name))
            found.push_back({name, true});
    return found;
}

std::string describe(const Difference& difference, const Trial& trial) {
    const std::string& name = difference.name;
    if (difference.isFact)
        return name + "\n    former:  " + indented(factOf(trial.former, name)) +
               "\n    present: " + indented(factOf(trial.present, name));
    return name + "\n    before:  " + inWords(entryAt(trial.before, name)) +
           "\n    former:  " + inWords(entryAt(trial.former.tree, name)) +
           "\n    present: " + inWords(entryAt(trial.present.tree, name));
}

}  // namespace corvo::equality
