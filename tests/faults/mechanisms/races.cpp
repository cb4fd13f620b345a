// Runs beside a process of popuser's that exchanges what they work on with something else.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

#include "tests/faults/disturb/exchanger.h"
#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/trap_judge.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/outside.h"
#include "tests/faults/world/trap_scene.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "utils/safe_path.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t LINK_RUNS = 670;  // per place
constexpr std::size_t FOLDER_RUNS = 100;
constexpr std::size_t REMOVALS = 500;
constexpr std::size_t QUICK_RUNS = 15;
constexpr std::size_t RUNS_BETWEEN_REPAIRS = 25;

const std::string USERDB_FOLDER = fs::path(test::USERDB).parent_path();
const std::string MAILDIR = test::MAILNAMES + "/" + TRAPPED_HOME + "/Maildir";

/// Two names whose contents are exchanged while runs are under way.
struct Race {
    std::string name;
    std::string place;  // where a run looks
    std::string other;  // a link to root's counterpart of the place, unless something is there
    Spoils spoils;
};

bool spoilsTrappedDomain(const std::string& key) {
    return key.starts_with(TRAPPED_DOMAIN) || key.starts_with(".decoy");
}

bool spoilsDelivery(const std::string& key) {
    return key.ends_with("/.qmail") || key == ".default_delivery" || spoilsTrappedDomain(key);
}

bool spoilsNothing(const std::string& key) {
    return key.starts_with(".decoy");
}

std::vector<Race> linkRaces() {
    const std::string decoy = test::MAILNAMES + "/.decoy";
    std::vector<Race> races = {
        {"domain", test::MAILNAMES + "/" + TRAPPED_DOMAIN, decoy, spoilsTrappedDomain},
        {"home", test::MAILNAMES + "/" + TRAPPED_HOME, decoy, spoilsTrappedDomain},
        {"default-delivery", test::DEFAULT_DELIVERY, decoy, spoilsDelivery},
        {"userdb", test::USERDB, USERDB_FOLDER + "/.aside", spoilsNothing},
    };
    for (const std::string below : {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur",
                                    "Maildir/.Spam", "Maildir/.Spam/cur", "Maildir/.Trash/tmp",
                                    "Maildir/maildirsize", "@attachments", ".qmail", ".qmail.tmp"})
        races.push_back({below, test::MAILNAMES + "/" + TRAPPED_HOME + "/" + below, decoy,
                         spoilsTrappedDomain});
    return races;
}

/// Folders of two mailboxes change places: no link that a run could refuse.
std::vector<Race> folderRaces() {
    std::vector<Race> races;
    for (const std::string below : {"", "/Maildir", "/Maildir/cur", "/Maildir/.Spam"})
        races.push_back({"neighbours" + below, test::MAILNAMES + "/" + TRAPPED_HOME + below,
                         test::MAILNAMES + "/" + NEIGHBOUR_HOME + below, spoilsTrappedDomain});
    return races;
}

bool isLink(const std::string& path) {
    return fs::is_symlink(fs::symlink_status(path));
}

void exchangeOnce(const std::string& one, const std::string& other) {
    if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0)
        throw std::system_error(errno, std::generic_category(), "exchange " + one);
}

/// A race's two names, while an exchanger works on them.
class Contested {
public:
    explicit Contested(const Race& race) : race_(race), exchanger_(race.place, race.other) {}

    /// Puts a link (or the other folder) beside the place, and something into it.
    void prepare();
    /// Lets `run` work against the exchanger, and puts back what ended up under the wrong name.
    Outcome during(const std::function<Outcome()>& run);
    /// Removes the link wherever it went, what came in its place, and what a run could not take
    /// away.
    void sweep() const;
    /// Whether the last run met the link: it refused to follow it, or has replaced or removed it.
    bool met(const Outcome& outcome) const;
    std::size_t exchanges() const { return exchanger_.count(); }

private:
    void straighten() const;

    const Race& race_;
    Exchanger exchanger_;
    ino_t rightful_ = 0;
    bool hasLink_ = false;
    bool linkIsGone_ = false;
};

void Contested::prepare() {
    if (!test::exists(race_.place) || isLink(race_.place)) {
        fs::remove(race_.place);
        test::writeFile(race_.place, "", test::POPUSER_UID, test::POPUSER_GID, 0600);
    }
    const bool isFolder = fs::is_directory(race_.other) && !isLink(race_.other);
    if (!isFolder) {
        const std::string bait = baitFor(race_.place);
        fs::remove(race_.other);
        test::makeLink(test::exists(bait) ? bait : baitFor(test::MAILNAMES) + "/secret",
                       race_.other, test::POPUSER_UID);
    }
    hasLink_ = !isFolder;
    rightful_ = test::inodeOf(race_.place);
}

Outcome Contested::during(const std::function<Outcome()>& run) {
    exchanger_.start();
    const Outcome outcome = run();
    exchanger_.stop();
    linkIsGone_ = hasLink_ && !isLink(race_.place) && !isLink(race_.other);
    straighten();
    return outcome;
}

void Contested::straighten() const {
    const bool isSwapped = test::exists(race_.other) && test::inodeOf(race_.other) == rightful_;
    if (test::exists(race_.place) && test::exists(race_.other) &&
        (isSwapped || isLink(race_.place)))
        exchangeOnce(race_.place, race_.other);
}

void Contested::sweep() const {
    if (hasLink_)
        fs::remove_all(race_.other);
    const std::string delivery = fs::path(MAILDIR).parent_path() / ".qmail";
    fs::remove(delivery + ".tmp");
    if (isLink(delivery))
        fs::remove(delivery);
    for (const std::string& name : test::namesIn(MAILDIR + "/tmp"))
        if (name.ends_with("-maildirsize"))
            fs::remove(MAILDIR + "/tmp/" + name);
}

bool Contested::met(const Outcome& outcome) const {
    const auto says = [&](const char* reason) {
        return outcome.err.find(reason) != std::string::npos;
    };
    return hasLink_ && (linkIsGone_ || says("Too many levels of symbolic links") ||
                        says("unable to open database file"));
}

class Races {
public:
    explicit Races(Report& report) : report_(report) {}

    void against(const Race& race, std::size_t runs);
    void removals();

private:
    void attempt(const Race& race, Contested& contested, const std::string& point, bool repairs);

    Report& report_;
    TrapScene scene_;
};

void Races::against(const Race& race, std::size_t runs) {
    std::vector<std::pair<std::string, bool>> wanted;
    for (std::size_t run = 1; run <= runs; ++run)
        if (const std::string point = race.name + "/" + std::to_string(run);
            report_.wants(point, run <= QUICK_RUNS))
            wanted.emplace_back(point, run % RUNS_BETWEEN_REPAIRS == 1);
    if (wanted.empty())
        return;
    scene_.reset();
    Contested contested(race);
    for (const auto& [point, repairs] : wanted)
        attempt(race, contested, point, repairs);
    report_.add("exchanges", contested.exchanges());
}

/// A folder that each run has to make anew.
void removeFolder() {
    fs::remove_all(MAILDIR + "/.Drafts");
}

void Races::attempt(const Race& race, Contested& contested, const std::string& point,
                    bool repairs) {
    Violations violations;
    try {
        removeFolder();
        contested.prepare();
        const Trial trial =
            tryRun([&] { return contested.during([] { return undisturbedRun(); }); });
        violations = judgeRace(trial, scene_.golden(), race.spoils);
        report_.add("runs", 1);
        if (contested.met(trial.outcome)) {
            report_.add("met", 1);
            report_.add("met/" + race.name, 1);
        }
        if (repairs) {
            contested.sweep();
            append(violations, judgeRepair(scene_.golden()));
            scene_.reset();
        }
    } catch (const std::exception& error) {
        violations.push_back(std::string("not judged: ") + error.what());
        scene_.reset();
    }
    report_.tried(point, violations);
}

Outcome remove(const std::string& top) {
    Outcome outcome;
    outcome.status = safe_path::removeTree(AT_FDCWD, top.c_str());
    return outcome;
}

/// A tree whose innermost folder is contested.
void makeRemovable(const std::string& top) {
    test::writeFile(top + "/one/two/three/file", "old");
    test::writeFile(top + "/one/file", "old");
    for (const auto& entry : fs::recursive_directory_iterator(top))
        (void)!::lchown(entry.path().c_str(), test::POPUSER_UID, test::POPUSER_GID);
    (void)!::lchown(top.c_str(), test::POPUSER_UID, test::POPUSER_GID);
}

/// No run removes a tree, but the file layer can.
void Races::removals() {
    const std::string top = test::MAILNAMES + "/" + TRAPPED_DOMAIN + "/removed";
    const Race race = {"removal", top + "/one/two", test::MAILNAMES + "/.decoy",
                       spoilsTrappedDomain};
    scene_.reset();
    makeRemovable(top);
    fs::create_directories(baitFor(race.place) + "/three");
    Contested contested(race);
    for (std::size_t run = 1; run <= REMOVALS; ++run) {
        const std::string point = race.name + "/" + std::to_string(run);
        if (!report_.wants(point, run <= QUICK_RUNS))
            continue;
        makeRemovable(top);
        contested.prepare();
        const OutsideState before = outsideState();
        const Outcome outcome = contested.during([&] { return remove(top); });
        fs::remove_all(race.other);
        report_.add("met/removal", contested.met(outcome) ? 1 : 0);
        report_.tried(point, judgeOutside(before, outsideState()));
    }
}

}  // namespace

void races(World& world, Report& report, const Selection& /*selection*/) {
    Races races(report);
    for (const Race& race : linkRaces())
        races.against(race, LINK_RUNS);
    for (const Race& race : folderRaces())
        races.against(race, FOLDER_RUNS);
    races.removals();
    world.reset(Start::restored);
}

}  // namespace corvo::faults
