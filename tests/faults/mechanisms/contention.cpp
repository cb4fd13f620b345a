// Other processes at the same places: holders of locks, for which a run waits as long as they hold
// them, and other runs.

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/disturb/background.h"
#include "tests/faults/mechanisms/points.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "utils/file_lock.h"

namespace corvo::faults {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// How long a lock is held: several times what a run takes alone.
constexpr milliseconds HOLD{400};

constexpr unsigned QUICK_ROUNDS = 1;

struct CloseDatabase {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};

// --- locks

void must(sqlite3* database, const char* statement) {
    if (sqlite3_exec(database, statement, nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string(statement) + ": " + sqlite3_errmsg(database));
}

/// Takes a lock by `statements` and holds it for the time of HOLD.
int holdDatabase(const std::string& path, const char* statements, const Background::Ready& ready) {
    sqlite3* opened = nullptr;
    sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, CloseDatabase> database(opened);
    must(opened, statements);
    ready();
    std::this_thread::sleep_for(HOLD);
    must(opened, "ROLLBACK");
    return 0;
}

int holdNamedLock(const std::string& path, const Background::Ready& ready) {
    lock_handle* const lock = mk_lock(path.c_str(), 1);
    if (!is_locked(lock))
        throw std::runtime_error("no lock for " + path);
    ready();
    std::this_thread::sleep_for(HOLD);
    return rm_lock(lock);
}

using Holder = std::function<int(const Background::Ready&)>;

enum class Meeting { waits, passes };

/// A run that meets the lock: it has to have restored everything, and to end later than the holder
/// unless it may pass.
void tryHolder(World& world, Report& report, Start start, const std::string& name,
               const Holder& holder, Meeting meeting = Meeting::waits,
               const std::string& mode = "--all") {
    const std::string point = nameOf(start) + "/" + name + mode;
    if (!report.wants(point))
        return;
    Violations own;
    Violations violations = judge(world, start, [&] {
        const auto begin = Clock::now();
        Background holding(holder);
        const Outcome outcome = undisturbedRun(mode);
        if (meeting == Meeting::waits && Clock::now() - begin < HOLD)
            own.push_back("I7 the run did not wait for the lock");
        if (holding.finish() != 0)
            own.push_back("I7 the holder of the lock failed");
        if (outcome.status != 0)
            own.push_back("I7 exit status " + std::to_string(outcome.status) + " instead of 0");
        return outcome;
    });
    violations.insert(violations.end(), own.begin(), own.end());
    report.tried(point, violations);
}

struct DatabaseLock {
    const char* name;
    const char* statements;
    Meeting ofReaders;
};

// A reader keeps a writer from committing; a writer that has not begun to write and one that has.
constexpr DatabaseLock DATABASE_LOCKS[] = {
    {"shared", "BEGIN; SELECT count(*) FROM sqlite_master", Meeting::passes},
    {"reserved", "BEGIN IMMEDIATE", Meeting::passes},
    {"exclusive", "BEGIN EXCLUSIVE", Meeting::waits},
};

void heldDatabases(World& world, Report& report) {
    for (const Start start : STARTS)
        for (const auto& [name, statements, ofReaders] : DATABASE_LOCKS) {
            // Where all is right, a run only reads.
            const Meeting meeting = start == Start::restored ? ofReaders : Meeting::waits;
            const auto holdOne = [statements = statements](const std::string& path) {
                return [=](const Background::Ready& ready) {
                    return holdDatabase(path, statements, ready);
                };
            };
            tryHolder(world, report, start, name + std::string("-userdb"), holdOne(test::USERDB),
                      meeting);
            tryHolder(world, report, start, name + std::string("-handlers"),
                      holdOne(test::HANDLERS), meeting);
        }
    tryHolder(
        world, report, Start::restored, "exclusive-handlers",
        [](const Background::Ready& ready) {
            return holdDatabase(test::HANDLERS, "BEGIN EXCLUSIVE", ready);
        },
        Meeting::waits, "--fast");
}

/// The delivery files that a run changes line by line: those with a line below the reset's.
std::vector<std::string> editedDeliveryFiles(const Golden& golden) {
    std::vector<std::string> paths;
    for (const auto& [path, entry] : golden.after.storage)
        if (path.ends_with("/.qmail") &&
            std::count(entry.content.begin(), entry.content.end(), '\n') > 1)
            paths.push_back(path);
    return paths;
}

void heldNamedLocks(World& world, Report& report) {
    for (const Start start : STARTS)
        for (const std::string& path : editedDeliveryFiles(world.golden(start)))
            tryHolder(world, report, start, "named-lock/" + path,
                      [&](const Background::Ready& ready) {
                          return holdNamedLock(test::MAILNAMES + "/" + path, ready);
                      });
}

// --- other runs

milliseconds headStart(std::size_t round) {
    constexpr std::size_t LONGEST = 20;
    return milliseconds(round % LONGEST);
}

std::string errorsOf(std::size_t companion) {
    return "/run/companion" + std::to_string(companion);
}

/// Runs with these modes at once, each begun a little apart from the others, differently in each
/// round, as one: the first bad status, all errors.
Outcome runsAtOnce(const std::vector<std::string>& modes, unsigned round) {
    std::list<Background> companions;
    for (std::size_t i = 1; i < modes.size(); ++i)
        companions.emplace_back([&](const Background::Ready& ready) {
            ready();
            std::this_thread::sleep_for(headStart(round / i));
            const Outcome outcome = undisturbedRun(modes[i]);
            test::writeFile(errorsOf(i), outcome.err);
            return outcome.status;
        });
    std::this_thread::sleep_for(headStart(round));
    Outcome all = undisturbedRun(modes[0]);
    std::size_t number = 0;
    for (Background& companion : companions) {
        const int status = companion.finish();
        if (all.status == 0)
            all.status = status;
        all.err += test::contentsOf(errorsOf(++number));
    }
    return all;
}

struct Company {
    std::vector<std::string> modes;
    unsigned rounds;  // in a full campaign, for each start

    std::string name() const {
        std::string joined = "together";
        for (const std::string& mode : modes)
            joined += mode;
        return joined;
    }
};

const Company COMPANIES[] = {
    {{"--all", "--all"}, 60},
    {{"--all", "--fast"}, 60},
    {{"--all", "--all", "--all"}, 300},
    {{"--all", "--all", "--fast"}, 60},
};

const Company HANDLERS_ONLY = {{"--fast", "--fast"}, 60};

/// Runs that only meet each other fail in nothing: all is restored when the last has ended.
void meetings(Points& points, const Selection& selection, Start start, const Company& company) {
    const Expectation ALL_RESTORED = {.passes = true};
    const bool hasAllRounds = selection.full || !selection.only.empty();
    const unsigned rounds = hasAllRounds ? company.rounds : QUICK_ROUNDS;
    for (unsigned round = 0; round < rounds; ++round)
        points.attempt(
            start, company.name() + "/" + std::to_string(round), true,
            [&] { return runsAtOnce(company.modes, round); }, ALL_RESTORED);
}

void companies(World& world, Report& report, const Selection& selection) {
    Points points(world, report);
    for (const Start start : STARTS)
        for (const Company& company : COMPANIES)
            meetings(points, selection, start, company);
    meetings(points, selection, Start::restored, HANDLERS_ONLY);
}

}  // namespace

void contention(World& world, Report& report, const Selection& selection) {
    heldDatabases(world, report);
    heldNamedLocks(world, report);
    companies(world, report, selection);
}

}  // namespace corvo::faults
