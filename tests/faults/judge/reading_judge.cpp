#include "tests/faults/judge/reading_judge.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tests/faults/judge/trap_judge.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr const char* DATABASES = "/var/lib/corvo";
constexpr const char* LOCKS = "/run/lock/files";

// Whatever their arguments and their result.
constexpr std::string_view CHANGING[] = {
    "chmod",     "chown",        "clone",     "clone3",       "copy_file_range", "creat",
    "fallocate", "fchmod",       "fchmodat",  "fchmodat2",    "fchown",          "fchownat",
    "fork",      "fremovexattr", "fsetxattr", "ftruncate",    "futimesat",       "kill",
    "lchown",    "link",         "linkat",    "lremovexattr", "lsetxattr",       "mkdir",
    "mkdirat",   "mknod",        "mknodat",   "mount",        "removexattr",     "rename",
    "renameat",  "renameat2",    "rmdir",     "sendfile",     "setxattr",        "splice",
    "symlink",   "symlinkat",    "truncate",  "umount2",      "unlink",          "unlinkat",
    "utime",     "utimensat",    "utimes",    "vfork",
};
constexpr std::string_view OPENING[] = {"open", "openat", "openat2"};
constexpr std::string_view WRITING[] = {"write",    "writev", "pwrite64", "pwritev",
                                        "pwritev2", "sendto", "sendmsg",  "sendmmsg"};
constexpr std::string_view WRITING_FLAGS[] = {"O_WRONLY", "O_RDWR",   "O_CREAT",
                                              "O_TRUNC",  "O_APPEND", "O_TMPFILE"};

template <typename List>
bool isAmong(const List& list, const std::string& name) {
    return std::find(std::begin(list), std::end(list), name) != std::end(list);
}

bool has(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

bool opensForWriting(const TracedCall& call) {
    // Behind the path, whose bytes are anybody's.
    const std::string flags = call.arguments.substr(call.arguments.rfind("\", ") + 1);
    return isAmong(OPENING, call.name) && !has(call.arguments, "\"/dev/null\"") &&
           std::any_of(std::begin(WRITING_FLAGS), std::end(WRITING_FLAGS),
                       [&](std::string_view flag) { return has(flags, flag); });
}

// Standard streams and sockets; whom those lead to is a matter of connect().
bool writesElsewhere(const TracedCall& call) {
    const std::string descriptor = call.arguments.substr(0, call.arguments.find(','));
    return isAmong(WRITING, call.name) && !descriptor.starts_with("1<") &&
           !descriptor.starts_with("2<") && !has(descriptor, "<socket:[");
}

bool connectsElsewhere(const TracedCall& call) {
    return call.name == "connect" && call.result == "0" &&
           !has(call.arguments, '"' + test::PanelDatabase::SOCKET_LINK + '"');
}

bool holdsUpOthers(const TracedCall& call) {
    return (call.name == "fcntl" && has(call.arguments, "F_WRLCK")) ||
           (call.name == "flock" && has(call.arguments, "LOCK_EX"));
}

bool sharesWritableMemory(const TracedCall& call) {
    return call.name == "mmap" && has(call.arguments, "PROT_WRITE") &&
           has(call.arguments, "MAP_SHARED");
}

bool entersTrap(const TracedCall& call) {
    const std::size_t path = call.result.find("</");
    if (path == std::string::npos)
        return false;
    const std::string opened = call.result.substr(path + 1, call.result.rfind('>') - path - 1);
    const std::string userdbFolder = std::filesystem::path(test::USERDB).parent_path();
    return isIn(baitFor(test::MAILNAMES), opened) || isIn(baitFor(userdbFolder), opened);
}

bool isWrong(const TracedCall& call) {
    return isAmong(CHANGING, call.name) || opensForWriting(call) || writesElsewhere(call) ||
           connectsElsewhere(call) || holdsUpOthers(call) || sharesWritableMemory(call) ||
           entersTrap(call);
}

// U+0080 to U+009F, as UTF-8 has them.
bool hasControlBeyondAscii(const std::string& text) {
    for (std::size_t at = text.find('\xc2'); at != std::string::npos;
         at = text.find('\xc2', at + 1))
        if (at + 1 < text.size() && (text[at + 1] & 0x60) == 0)
            return true;
    return false;
}

bool isUtf8(const std::string& text) {
    try {
        (void)nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

bool isTouched(const Entry* before, const Entry* after) {
    return before == nullptr || after == nullptr || *before != *after;
}

}  // namespace

Untouched Untouched::look() {
    return {readTree(test::MAILNAMES, true), readTree(DATABASES, true), readTree(LOCKS, true),
            outsideState()};
}

Violations judgeCalls(const std::vector<TracedCall>& calls) {
    Violations violations;
    for (const TracedCall& call : calls)
        if (isWrong(call))
            violations.push_back("I13 " + call.name + "(" + call.arguments + ") = " + call.result);
    return violations;
}

Violations judgeUntouched(const Untouched& before, const Untouched& after) {
    Violations violations = judgeOutside(before.outside, after.outside);
    for (const auto tree : {&Untouched::storage, &Untouched::databases, &Untouched::locks})
        for (const std::string& path : pathsThat(isTouched, before.*tree, after.*tree))
            violations.push_back("I13 " + path + ": " + shown(entryAt(after.*tree, path)) +
                                 " instead of " + shown(entryAt(before.*tree, path)));
    return violations;
}

Violations judgeText(const std::string& printed) {
    const bool isControlled = std::any_of(printed.begin(), printed.end(), [](char c) {
        return c != '\n' && std::iscntrl(static_cast<unsigned char>(c)) != 0;
    });
    if (isControlled || hasControlBeyondAscii(printed))
        return {"I13 what is printed drives a terminal: " + shown(printed)};
    if (!isUtf8(printed))
        return {"I13 what is printed is no UTF-8: " + shown(printed)};
    return {};
}

Violations judgeAudit(const std::function<TracedRun()>& audit) {
    const Untouched before = Untouched::look();
    const TracedRun run = audit();
    Violations violations = judgeEnd(run.outcome);
    append(violations, judgeCalls(run.calls));
    append(violations, judgeUntouched(before, Untouched::look()));
    append(violations, judgeText(run.outcome.out));
    append(violations, judgeText(run.outcome.err));
    if (run.calls.empty())
        violations.push_back("I13 there is no trace: " + shown(run.outcome.err));
    if (has(run.outcome.out + run.outcome.err, BAIT_MARK))
        violations.push_back("I5 root's files are told of: " + shown(run.outcome.out));
    return violations;
}

}  // namespace corvo::faults
