#include <sys/stat.h>

#include <iomanip>
#include <set>
#include <sstream>
#include <string>

#include "tests/faults/judge/judgement.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

bool isPrefixOfPassing(const Golden& golden, const std::string& path, const std::string& content) {
    const auto passing = golden.passing.find(path);
    if (passing == golden.passing.end())
        return false;
    for (const std::string& passed : passing->second)
        if (passed.starts_with(content))
            return true;
    return false;
}

std::set<std::string> forwardsIn(const std::string& content) {
    std::set<std::string> forwards;
    for (const std::string& line : linesOf(content))
        if (line.starts_with('&'))
            forwards.insert(line);
    return forwards;
}

std::string without(const std::set<std::string>& removed, const std::string& content) {
    std::string kept;
    for (const std::string& line : linesOf(content))
        if (!removed.contains(line))
            kept += line + "\n";
    return kept;
}

bool hasFailed(const std::string& stage, const std::string& address, const Outcome& outcome) {
    return outcome.err.find(stage + address + " failed (") != std::string::npos;
}

std::set<std::string> forwardsOf(const Entry* file) {
    return file == nullptr ? std::set<std::string>() : forwardsIn(file->content);
}

bool saysThatForwardsStay(const std::string& path, const Outcome& outcome) {
    return outcome.err.find("Unable to drop forwards from " + test::MAILNAMES + "/" + path + ":") !=
           std::string::npos;
}

/// The forwards of a group are added even when the stage before has failed, to whatever that has
/// left; and those from before stay where they cannot be dropped.
bool isForwardsAfterFailure(const Golden& golden, const std::string& path, const Entry* former,
                            const std::string& content, const Outcome& outcome) {
    const bool formerMayStay = saysThatForwardsStay(path, outcome);
    if (!formerMayStay && !hasFailed("registering mailbox for ", addressOf(homeOf(path)), outcome))
        return false;
    std::set<std::string> forwards = forwardsOf(entryAt(golden.after.storage, path));
    if (formerMayStay)
        forwards.merge(forwardsOf(former));
    const std::string rest = without(forwards, content);
    return isPrefixOfPassing(golden, path, rest) ||
           (former != nullptr && rest == without(forwards, former->content));
}

struct SizeFile {
    long long limit = 0;
    long long bytes = 0;
    long long messages = 0;
};

/// False for anything but a whole file such as a run writes.
bool parse(const std::string& content, SizeFile& file) {
    std::istringstream numbers(content);
    std::string mark;
    if (!(numbers >> file.limit >> mark >> file.bytes >> file.messages))
        return false;
    std::ostringstream written;
    written << file.limit << "S,0C\n"
            << std::setw(12) << file.bytes << std::setw(12) << file.messages << '\n';
    return content == written.str();
}

/// The quota before attachments are taken off, as the user database has it.
std::string quotaRowFor(const std::string& path, long long limit) {
    const std::size_t domain = path.find('/');
    const std::size_t name = path.find('/', domain + 1);
    return path.substr(0, domain) + "|" + path.substr(domain + 1, name - domain - 1) + "|" +
           std::to_string(limit) + "B\n";
}

}  // namespace

bool isAllowedDelivery(const Golden& golden, const std::string& path, const Entry* former,
                       const Entry* now, const Outcome& outcome) {
    // A reset that cannot be written to its end takes the file away, and says so.
    if (now == nullptr)
        return outcome.err.find("Unable to write to '" + test::MAILNAMES + "/" + path + "'") !=
               std::string::npos;
    if (former != nullptr && former->content == now->content)
        return true;
    return isPrefixOfPassing(golden, path, now->content) ||
           isForwardsAfterFailure(golden, path, former, now->content, outcome);
}

bool isNewSizeFile(const Golden& golden, const std::string& path, const std::string& content) {
    const Entry* wanted = entryAt(golden.after.storage, path);
    SizeFile found;
    SizeFile whole;
    if (wanted == nullptr || !parse(content, found) || !parse(wanted->content, whole))
        return false;
    const bool isLimitKnown =
        found.limit == whole.limit ||
        golden.after.quotaRows.find(quotaRowFor(path, found.limit)) != std::string::npos;
    return isLimitKnown && found.bytes <= whole.bytes && found.messages <= whole.messages;
}

bool isOwnedByUnknown(const std::string& path, const Entry& now, const Outcome& outcome) {
    return path.ends_with("/maildirsize") && now.mode == (S_IFREG | 0644) &&
           (now.uid == 0 || now.uid == test::POPUSER_UID) &&
           (now.gid == 0 || now.gid == test::POPUSER_GID) &&
           (outcome.err.find("Unable to getpwnam for user popuser") != std::string::npos ||
            outcome.err.find("Can't allocate memory for error message") != std::string::npos);
}

}  // namespace corvo::faults
