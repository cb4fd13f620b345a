#include "tests/agreement/audit.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "tests/equality/scene.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/support/process.h"

namespace corvo::agreement {

namespace {

using Json = nlohmann::ordered_json;

constexpr int WATCHDOG = 30;  // seconds
constexpr const char* DATABASES = "/var/lib/corvo";
constexpr const char* LOCKS = "/run/lock/files";

std::string textOrNothing(const Json& value) {
    return value.is_null() ? std::string() : value.get<std::string>();
}

// Also where a link leads to nothing.
std::string resolved(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::path real = fs::weakly_canonical(path, error);
    if (!error && fs::is_symlink(fs::symlink_status(real)))
        real = (real.parent_path() / fs::read_symlink(real)).lexically_normal();
    return error ? path : real.string();
}

bool isRepairedByAll(const Json& repair) {
    return std::find(repair.begin(), repair.end(), "--all") != repair.end();
}

Finding findingOf(const std::string& line) {
    const Json object = Json::parse(line);
    Finding finding;
    finding.kind = object.at("kind").get<std::string>();
    finding.domain = textOrNothing(object.at("domain"));
    const std::string address = textOrNothing(object.at("mailbox"));
    finding.mailbox = address.substr(0, address.rfind('@'));
    finding.path = object.at("path").get<std::string>();
    finding.reason = object.at("reason").get<std::string>();
    finding.expected = textOrNothing(object.at("expected"));
    if (finding.kind == "surplus-line")
        finding.surplus = textOrNothing(object.at("found"));
    finding.isRepaired = isRepairedByAll(object.at("repair"));
    finding.resolved = resolved(finding.path);
    return finding;
}

// All that an audit may come to, with times and inodes.
faults::Tree allThereIs() {
    faults::Tree all;
    for (const std::string& top : {equality::STORAGE, std::string(DATABASES), std::string(LOCKS)})
        for (auto& [path, entry] : faults::readTree(top, true))
            all[std::string(top).append("/").append(path)] = std::move(entry);
    return all;
}

bool isTouched(const faults::Entry* before, const faults::Entry* after) {
    return before == nullptr || after == nullptr || *before != *after;
}

}  // namespace

bool Finding::isSame(const Finding& other) const {
    return kind == other.kind && domain == other.domain && mailbox == other.mailbox &&
           path == other.path && reason == other.reason && expected == other.expected &&
           surplus == other.surplus;
}

std::string Finding::text() const {
    return kind + " " + path + (mailbox.empty() ? "" : " (" + mailbox + "@" + domain + ")") + ": " +
           reason + (expected.empty() ? "" : ", expected \"" + expected + "\"") +
           (surplus.empty() ? "" : ", found \"" + surplus + "\"") +
           (isRepaired ? " [--all]" : " [none]");
}

bool Audit::hasQuotaRows() const {
    return err.find("the quota rows were not looked at") == std::string::npos;
}

bool Audit::hasHandlerRecords() const {
    return err.find("the records of the over-quota handler were not looked at") ==
           std::string::npos;
}

Audit runAudit() {
    const faults::Tree before = allThereIs();
    const test::ProcessResult result = test::run(
        {test::mailAuditBinary(), "diff", "--recount", "--format", "jsonl"}, {}, WATCHDOG);
    Audit audit;
    audit.status = result.status;
    audit.err = result.err;
    audit.hung = result.timedOut;
    audit.touched = faults::pathsThat(isTouched, before, allThereIs());
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        audit.findings.push_back(findingOf(line));
    return audit;
}

}  // namespace corvo::agreement
