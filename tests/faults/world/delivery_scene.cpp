#include "tests/faults/world/delivery_scene.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "tests/faults/disturb/runner.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

constexpr const char* DATABASES = "/var/lib/corvo";
constexpr const char* LOCK_FOLDER = "/run/lock/files";
constexpr const char* AGENT = "/usr/bin/deliverquota";
const std::string DOMAIN = "kept.example";

constexpr int MOST_FORWARDS = 5;
constexpr long long QUOTA = 10'485'760;

std::string deliveryFileOf(const Recipient& recipient) {
    return DOMAIN + "/" + recipient.name() + "/.qmail";
}

void requireSuccess(const Outcome& outcome) {
    if (outcome.status != 0 || outcome.hung || outcome.err.find("failed") != std::string::npos)
        throw std::runtime_error("an undisturbed run of the scene fails: " + outcome.err);
}

void emptyStorage() {
    for (const std::string& name : test::namesIn(test::MAILNAMES))
        fs::remove_all(test::MAILNAMES + "/" + name);
}

void installPreconditions() {
    test::makeDirectory(LOCK_FOLDER);
    fs::permissions(LOCK_FOLDER, fs::perms::owner_all);
    test::installDeliverquota();
    test::writeFile(test::DEFAULT_DELIVERY, test::DELIVERY_LINE + "\n", test::POPUSER_UID,
                    test::POPUSER_GID, 0600);
}

void takeAway(Missing missing) {
    if (missing == Missing::lockFolder)
        fs::remove_all(LOCK_FOLDER);
    else if (missing == Missing::deliveryAgent)
        fs::remove(AGENT);
    else if (missing == Missing::defaultLine)
        fs::remove(test::DEFAULT_DELIVERY);
}

}  // namespace

std::string Recipient::name() const {
    const std::string kind = isMailbox && isGroup ? "both" : isMailbox ? "mailbox" : "group";
    return kind + (isGroup ? "-" + std::to_string(forwards) : "") +
           (isInOtherOrder ? "-reversed" : "");
}

std::vector<Recipient> allRecipients() {
    std::vector<Recipient> all = {{true, false, 0, false}};
    for (const bool isMailbox : {false, true})
        for (int forwards = 0; forwards <= MOST_FORWARDS; ++forwards) {
            all.push_back({isMailbox, true, forwards, false});
            if (forwards > 1)
                all.push_back({isMailbox, true, forwards, true});
        }
    return all;
}

std::vector<Recipient> fewRecipients() {
    return {{true, false, 0, false}, {false, true, 2, false}, {true, true, 2, true}};
}

std::string nameOf(Missing missing) {
    constexpr const char* NAMES[] = {"sound", "no-lock-folder", "no-agent", "no-default-line"};
    return NAMES[static_cast<int>(missing)];
}

DeliveryScene::DeliveryScene(const std::vector<Recipient>& recipients) {
    describe(recipients);
    emptyStorage();
    installPreconditions();
    requireSuccess(undisturbedRun());
    for (const Recipient& recipient : recipients)
        if (recipient.isInOtherOrder)
            reverseForwards(recipient);
    before_ = readTree(test::MAILNAMES);
    databases_ = readTree(DATABASES);
    requireSuccess(undisturbedRun());
    wanted_ = readTree(test::MAILNAMES);
}

DeliveryScene::~DeliveryScene() {
    installPreconditions();
}

void DeliveryScene::describe(const std::vector<Recipient>& recipients) {
    auto domain = panel_.domain(DOMAIN);
    for (const Recipient& recipient : recipients) {
        auto name = domain.mailname(recipient.name()).quota(QUOTA);
        name.postbox(recipient.isMailbox).group(recipient.isGroup);
        for (int i = 1; i <= recipient.forwards; ++i)
            name.redirect("to" + std::to_string(i) + "@away.example");
    }
}

void DeliveryScene::reverseForwards(const Recipient& recipient) const {
    const std::string path = test::MAILNAMES + "/" + deliveryFileOf(recipient);
    std::istringstream lines(test::contentsOf(path));
    std::vector<std::string> kept;
    std::vector<std::string> forwards;
    for (std::string line; std::getline(lines, line);)
        (line.starts_with('&') ? forwards : kept).push_back(line);
    std::reverse(forwards.begin(), forwards.end());
    kept.insert(kept.end(), forwards.begin(), forwards.end());
    std::string content;
    for (const std::string& line : kept)
        content += line + "\n";
    test::writeFile(path, content, test::POPUSER_UID, test::POPUSER_GID, 0600);
}

void DeliveryScene::reset(Missing missing) const {
    installPreconditions();
    restoreTree(test::MAILNAMES, readTree(test::MAILNAMES), before_);
    restoreTree(DATABASES, readTree(DATABASES), databases_);
    takeAway(missing);
}

Tree DeliveryScene::deliveryFiles() const {
    Tree files;
    for (const auto& [path, entry] : before_)
        if (path.ends_with("/.qmail"))
            if (Tree file = readTree(test::MAILNAMES + "/" + path); !file.empty())
                files[path] = std::move(file.at(""));
    return files;
}

}  // namespace corvo::faults
