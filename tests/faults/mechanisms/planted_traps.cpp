// Traps of popuser's that lie in wait for a run, and links of administrators' that it must follow.

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <exception>
#include <filesystem>

#include "tests/faults/disturb/lease.h"
#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/trap_judge.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/trap_scene.h"
#include "tests/faults/world/traps.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"

namespace corvo::faults {

namespace {

namespace fs = std::filesystem;

// On a disk of the administrator's.
const std::string ELSEWHERE = "/var/qmail/disk/moved";

const std::string USERDB_FOLDER = fs::path(test::USERDB).parent_path();

bool spoilsNothing(const std::string& /*key*/) {
    return false;
}

std::string atPath(const std::string& key) {
    return key.empty() ? test::MAILNAMES : test::MAILNAMES + "/" + key;
}

/// A place in the mail tree.
struct Place {
    std::string key;
    Spoils spoils;
};

/// What a trap at a path below the mail names root may spoil.
Spoils spoilsOf(const std::string& key) {
    if (key == TRAPPED_DOMAIN)
        return [](const std::string& other) { return isIn(TRAPPED_DOMAIN, other); };
    if (key == ".default_delivery")
        return [](const std::string& other) {
            return other.ends_with("/.qmail") || isIn(".default_delivery", other);
        };
    return [](const std::string& other) { return isIn(TRAPPED_HOME, other); };
}

std::vector<Place> placesInStorage(const Restored& golden) {
    std::vector<Place> places;
    for (const std::string& path : trapPlaces(golden))
        if (path.starts_with(test::MAILNAMES + "/")) {
            const std::string key = path.substr(test::MAILNAMES.size() + 1);
            places.push_back({key, spoilsOf(key)});
        }
    return places;
}

class PlantedTraps {
public:
    explicit PlantedTraps(Report& report) : report_(report) {}

    void trapsInStorage();
    void trapsBesideTheQuotas();
    void trapsInTheWayOfTheNewSize();
    void leases();
    void administratorsLinks();

private:
    using Judgement = std::function<Violations()>;

    void attempt(const std::string& point, bool inQuick, const Judgement& judgement);
    Violations judgeTrap(const Place& place, const std::function<Outcome()>& run) const;
    Violations judgeQuotaTrap(const std::string& path, TrapKind kind) const;
    Violations judgeTrapForTheNewSize(TrapKind kind) const;
    Violations judgeLease(const std::string& key, Holder holder) const;
    Violations judgeFollowedLink(const std::string& key) const;
    Violations judgeFollowedQuotaLink() const;

    Report& report_;
    TrapScene scene_;
};

bool isSample(std::size_t place, TrapKind kind) {
    return kind == TrapKind::link || (place + static_cast<std::size_t>(kind)) % 8 == 0;
}

void PlantedTraps::attempt(const std::string& point, bool inQuick, const Judgement& judgement) {
    if (!report_.wants(point, inQuick))
        return;
    scene_.reset();
    try {
        report_.tried(point, judgement());
    } catch (const std::exception& error) {
        report_.tried(point, {std::string("not judged: ") + error.what()});
    }
}

// --- in the mail tree

/// What a run makes of a trap that is there.
Violations PlantedTraps::judgeTrap(const Place& place, const std::function<Outcome()>& run) const {
    const Trial trial = tryRun(run);
    Violations violations = judgeTrial(trial, scene_.golden(), place.spoils);
    append(violations, judgeRows(scene_.golden(), Restored::look(), place.spoils));
    return violations;
}

void PlantedTraps::trapsInStorage() {
    const std::vector<Place> places = placesInStorage(scene_.golden());
    for (std::size_t i = 0; i < places.size(); ++i)
        for (const TrapKind kind : TRAP_KINDS)
            attempt(places[i].key + "/" + nameOf(kind), isSample(i, kind), [&] {
                const std::string path = atPath(places[i].key);
                plantTrap(path, kind);
                Violations violations = judgeTrap(places[i], [] { return undisturbedRun(); });
                removeTrap(path);
                append(violations, judgeRepair(scene_.golden()));
                return violations;
            });
}

// --- in the quota database's folder

/// A quota that is not stored is reported.
Violations judgeQuotaReports(const Outcome& outcome) {
    Violations violations;
    const std::string rows = Restored::look().quotaRows;
    for (const std::string& home : HOMES) {
        std::string row = home + "|";
        row.replace(row.find('/'), 1, "|");
        if (rows.find(row) == std::string::npos && !isNamed(home, outcome.err))
            violations.push_back("I8 no quota of " + home + ", and not named: <" + outcome.err +
                                 ">");
    }
    return violations;
}

Violations PlantedTraps::judgeQuotaTrap(const std::string& path, TrapKind kind) const {
    plantTrap(path, kind);
    const Trial trial = tryRun([] { return undisturbedRun(); });
    Violations violations = judgeTrial(trial, scene_.golden(), spoilsNothing);
    removeTrap(path);
    append(violations, judgeQuotaReports(trial.outcome));
    append(violations, judgeRepair(scene_.golden()));
    return violations;
}

void PlantedTraps::trapsBesideTheQuotas() {
    for (const std::string suffix : {"", "-journal", "-wal", "-shm"})
        for (const TrapKind kind : TRAP_KINDS)
            attempt("userdb.db" + suffix + "/" + nameOf(kind), isSample(0, kind),
                    [&] { return judgeQuotaTrap(test::USERDB + suffix, kind); });
}

// --- under the name that the new maildirsize is written to

/// In the run's own process, whose number is part of the name: for this second and the next.
void plantForThisProcess(TrapKind kind) {
    char host[65] = {};
    (void)::gethostname(host, sizeof host - 1);
    const std::time_t now = std::time(nullptr);
    for (const std::time_t second : {now, now + 1})
        plant(atPath(TRAPPED_HOME) + "/Maildir/tmp/" + std::to_string(second) + "." +
                  std::to_string(::getpid()) + "." + host + "-maildirsize",
              kind, false);
}

bool isHard(TrapKind kind) {
    return kind == TrapKind::hardLink || kind == TrapKind::emptyLink ||
           kind == TrapKind::stolenLink;
}

/// Takes away what was planted; returns how many there were.
std::size_t forgetPlanted(Tree& storage) {
    return std::erase_if(storage, [](const auto& entry) {
        return entry.first.find("-maildirsize") != std::string::npos;
    });
}

Violations PlantedTraps::judgeTrapForTheNewSize(TrapKind kind) const {
    const Spoils spoils = [](const std::string& key) { return isIn(TRAPPED_HOME, key); };
    Trial trial = tryRun([kind] { return preparedRun([kind] { plantForThisProcess(kind); }); });
    // A hard link changes what it names: that is the planting's doing.
    if (isHard(kind))
        trial.outsideBefore = trial.outsideAfter;
    const std::size_t planted = forgetPlanted(trial.storageAfter);
    Violations violations = judgeTrial(trial, scene_.golden(), spoils);
    if (planted < 2)
        violations.push_back("I6 a run removes what it did not make");
    scene_.reset();
    append(violations, judgeRepair(scene_.golden()));
    return violations;
}

void PlantedTraps::trapsInTheWayOfTheNewSize() {
    for (const TrapKind kind : TRAP_KINDS)
        attempt("new-maildirsize/" + nameOf(kind), isSample(0, kind),
                [&] { return judgeTrapForTheNewSize(kind); });
}

// --- files that popuser holds a lease on, so that a run has to wait

/// The run waits, and restores all.
Violations PlantedTraps::judgeLease(const std::string& key, Holder holder) const {
    const int patience = WATCHDOG + (holder == Holder::isStubborn ? leaseBreakTime() : 0);
    const Trial trial = tryRun([&] {
        const Lease lease(atPath(key), holder);
        return watched([] { executeRun(); }, patience);
    });
    Violations violations = judgeTrial(trial, scene_.golden(), spoilsNothing);
    append(violations, judgeRows(scene_.golden(), Restored::look(), spoilsNothing));
    if (trial.outcome.err.find("ignored") != std::string::npos)
        violations.push_back("I9 a lease is not waited for: <" + trial.outcome.err + ">");
    append(violations, judgeRepair(scene_.golden()));
    return violations;
}

void PlantedTraps::leases() {
    for (const Place& place : placesInStorage(scene_.golden()))
        if (fs::is_regular_file(fs::symlink_status(atPath(place.key))))
            attempt(place.key + "/lease", true,
                    [&] { return judgeLease(place.key, Holder::givesWay); });
    const std::string delivery = TRAPPED_HOME + "/.qmail";
    attempt(delivery + "/stubborn-lease", false,
            [&] { return judgeLease(delivery, Holder::isStubborn); });
}

// --- links of administrators

std::string belowKey(const std::string& key, const std::string& below) {
    return key.empty() || below.empty() ? key + below : key + "/" + below;
}

/// The tree as those see it who follow the one link at `key`.
Tree assembled(const std::string& key) {
    Tree storage = readTree(test::MAILNAMES);
    const auto link = storage.find(key);
    if (link == storage.end() || !S_ISLNK(link->second.mode))
        return storage;
    for (const auto& [below, entry] : readTree(ELSEWHERE))
        storage[belowKey(key, below)] = entry;
    return storage;
}

void moveElsewhere(const std::string& path) {
    fs::remove_all(ELSEWHERE);
    fs::create_directories(fs::path(ELSEWHERE).parent_path());
    fs::rename(path, ELSEWHERE);
    test::makeLink(ELSEWHERE, path);
}

/// A file is renamed over the link to its old form; then it has moved back already.
void moveBack(const std::string& path) {
    if (!fs::is_symlink(path))
        return;
    fs::remove(path);
    fs::rename(ELSEWHERE, path);
}

/// Folders that are links are no folders of the Maildir to those who count it.
bool isLeftOutOfTheSize(const std::string& key) {
    return fs::path(key).parent_path() == TRAPPED_HOME + "/Maildir" &&
           fs::path(key).filename().string().starts_with(".");
}

bool isRestoredTo(const Entry& wanted, const Entry& found) {
    return found.mode == wanted.mode && found.uid == wanted.uid && found.gid == wanted.gid &&
           found.content == wanted.content;
}

Violations judgeLinkedHomes(const std::string& key, const Restored& golden) {
    Violations violations;
    const Tree storage = assembled(key);
    if (storage.size() != golden.storage.size())
        violations.push_back("I9 there are " + std::to_string(storage.size()) +
                             " entries instead of " + std::to_string(golden.storage.size()));
    for (const auto& [at, wanted] : golden.storage) {
        const auto found = storage.find(at);
        const bool isUncounted = isLeftOutOfTheSize(key) && at.ends_with("/maildirsize");
        if (!isUncounted && (found == storage.end() || !isRestoredTo(wanted, found->second)))
            violations.push_back("I9 " + at + " is not restored behind root's link");
    }
    return violations;
}

Violations PlantedTraps::judgeFollowedLink(const std::string& key) const {
    const std::string path = atPath(key);
    moveElsewhere(path);
    if (fs::is_directory(ELSEWHERE) && !key.empty()) {
        fs::permissions(ELSEWHERE, fs::perms::all);
        (void)!::chown(ELSEWHERE.c_str(), 0, 0);
    }
    const Outcome outcome = undisturbedRun();
    Violations violations = judgeLinkedHomes(key, scene_.golden());
    if (outcome.err.find("ignored") != std::string::npos)
        violations.push_back("I9 a link of root's is refused: <" + outcome.err + ">");
    moveBack(path);
    append(violations, judgeRows(scene_.golden(), Restored::look(), spoilsNothing));
    append(violations, judgeRepair(scene_.golden()));
    return violations;
}

/// The quota database on another disk.
Violations PlantedTraps::judgeFollowedQuotaLink() const {
    const std::string moved = fs::path(USERDB_FOLDER).parent_path() / "moved.db";
    fs::rename(test::USERDB, moved);
    test::makeLink(moved, test::USERDB);
    const Outcome outcome = undisturbedRun();
    Violations violations = judgeRows(scene_.golden(), Restored::look(), spoilsNothing);
    if (outcome.err.find("ignored") != std::string::npos)
        violations.push_back("I9 a link of root's is refused: <" + outcome.err + ">");
    fs::rename(moved, test::USERDB);
    append(violations, judgeRepair(scene_.golden()));
    return violations;
}

bool isLinkedByAdministrators(const std::string& key, const Entry& entry) {
    const bool isRestored =
        key.find("/.Other") == std::string::npos && key.find("/@attachments/") == std::string::npos;
    return (S_ISDIR(entry.mode) && isRestored) || key.ends_with("/.qmail") ||
           key.ends_with("/maildirsize") || key == ".default_delivery";
}

void PlantedTraps::administratorsLinks() {
    for (const auto& [key, entry] : scene_.golden().storage)
        if ((key.empty() || !key.starts_with("honest")) && !isIn(NEIGHBOUR_HOME, key) &&
            isLinkedByAdministrators(key, entry))
            attempt("administrators/" + key, S_ISREG(entry.mode),
                    [&, at = key] { return judgeFollowedLink(at); });
    attempt("administrators/userdb.db", true, [&] { return judgeFollowedQuotaLink(); });
}

}  // namespace

void plantedTraps(World& world, Report& report, const Selection& /*selection*/) {
    PlantedTraps traps(report);
    traps.trapsInStorage();
    traps.trapsBesideTheQuotas();
    traps.trapsInTheWayOfTheNewSize();
    traps.leases();
    traps.administratorsLinks();
    world.reset(Start::restored);
}

}  // namespace corvo::faults
