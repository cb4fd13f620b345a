#include "tests/faults/judge/power_judge.h"

#include "tests/faults/judge/judgement.h"
#include "tests/faults/judge/keeps_delivering.h"
#include "tests/faults/judge/tree_comparison.h"

namespace corvo::faults {

namespace {

/// Whether a power cut has to leave this whole.
bool isReplacedAtOnce(const std::string& path) {
    return path.ends_with("/.qmail") || path.ends_with("/maildirsize");
}

bool hasSameContent(const Entry* one, const Entry* other) {
    if (one == nullptr || other == nullptr)
        return one == other;
    return one->content == other->content;
}

std::string difference(const std::string& path, const Entry* before, const Entry* found) {
    return "I12 " + path + ": " + shown(before) + " became " + shown(found);
}

/// Whether a .qmail has been like this when not all of its new forwards were there yet, or its old
/// ones still were.
bool isOnTheWay(const std::string& path, const Entry* former, const Entry* wanted, const Entry* now,
                const Stood& stood) {
    const auto contents = stood.find(path);
    return (forwards(former) || forwards(wanted)) && now != nullptr &&
           now->content.ends_with('\n') && contents != stood.end() &&
           contents->second.contains(now->content);
}

Violations judgeFiles(const Tree& before, const Tree& wanted, const Tree& found,
                      const Stood& stood) {
    Violations violations;
    compare(before, found, [&](const std::string& path, const Entry* former, const Entry* now) {
        const Entry* shall = entryAt(wanted, path);
        if (isReplacedAtOnce(path) && !hasSameContent(now, former) && !hasSameContent(now, shall) &&
            !isOnTheWay(path, former, shall, now, stood))
            violations.push_back(difference(path, former, now));
    });
    return violations;
}

Violations judgeMessages(const Tree& before, const Tree& found) {
    Violations violations;
    for (const auto& [path, former] : before)
        if (isStoredMessage(path, former) && !hasSameContent(&former, entryAt(found, path)))
            violations.push_back(difference(path, &former, entryAt(found, path)));
    return violations;
}

Violations judgeDamage(const CutImage& image) {
    if (image.damage.empty())
        return {};
    return {"I12 the file system is damaged: " + shown(image.damage)};
}

}  // namespace

bool forwards(const Entry* file) {
    return file != nullptr &&
           (file->content.starts_with('&') || file->content.find("\n&") != std::string::npos);
}

Violations judgeCut(const Golden& golden, const Stood& stood, const CutImage& image) {
    const Tree& before = golden.before.storage;
    const Tree& wanted = golden.after.storage;
    const Tree& found = image.found.storage;
    Violations violations = judgeDamage(image);
    append(violations, judgeFiles(before, wanted, found, stood));
    append(violations, checkKeepsDelivering(before, wanted, found));
    append(violations, judgeMessages(before, found));
    checkDatabases(golden, golden.before, image.found, violations);
    return violations;
}

Violations judgeCutAfterEnd(const Golden& golden, const CutImage& image) {
    Violations missing;
    checkRepaired(golden, image.found, missing);
    Violations violations = judgeDamage(image);
    for (const std::string& what : missing)
        violations.push_back("I12 not on the disk after the end: " + what);
    return violations;
}

}  // namespace corvo::faults
