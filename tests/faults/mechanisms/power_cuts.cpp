// Power cuts: the disk as it is after each flush of a run, at calls between, when the run has ended
// and a while later; also of a run that follows a killed one.

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/disturb/call_kinds.h"
#include "tests/faults/disturb/tracer.h"
#include "tests/faults/judge/power_judge.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/faults/mechanisms/points.h"
#include "tests/faults/world/power_disk.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

/// Calls from one image to the next where nothing is flushed.
constexpr std::size_t STEP = 40;

/// Every so many images of a run are in a quick campaign.
constexpr std::size_t QUICK_STEP = 29;

/// Longer than ext4 keeps its journal open.
constexpr std::chrono::seconds A_WHILE{6};

CutImage imageOf(const PowerDisk& disk) {
    PowerDisk::Found found = disk.cut();
    return {std::move(found.snapshot), std::move(found.damage)};
}

/// Runs on a disk, and what comes of power cuts meanwhile.
class DisturbedPower {
public:
    DisturbedPower(const PowerDisk& disk, const Golden& golden, Report& report, std::string name)
        : disk_(disk), golden_(golden), report_(report), name_(std::move(name)) {}

    /// A run that is killed at a call, with its power on.
    void kill(const Position& position) {
        observeUntil(position, [this](const Call& /*next*/) { rememberForwards(); });
        name_ += "-killed-at-" + nameOf(position);
    }

    /// A run to its end.
    void run() {
        const int status = observeRun([this](const Call& next) { look(next); });
        if (report_.wants(name_ + "/end"))
            tried("end", status);
        if (report_.wants(name_ + "/a-while-later", false)) {
            std::this_thread::sleep_for(A_WHILE);
            tried("a-while-later", status);
        }
    }

private:
    /// The call before has come to its end, and nothing has happened since.
    void look(const Call& next) {
        rememberForwards();
        const bool isFlushed = flushes(lastCall_);
        lastCall_ = next.number;
        if (!isFlushed && (next.position.call % STEP != 0 || next.position.look != 0))
            return;
        const std::string point = name_ + "/" + nameOf(next.position);
        if (!report_.wants(point, ++images_ % QUICK_STEP == 0))
            return;
        report_.tried(point, judgeCut(golden_, stood_, imageOf(disk_)));
        report_.add("after_flush", isFlushed ? 1 : 0);
    }

    void rememberForwards() {
        for (const auto& [path, entry] : golden_.after.storage)
            if (path.ends_with("/.qmail") &&
                (forwards(&entry) || forwards(entryAt(golden_.before.storage, path))))
                if (const Tree file = readTree(test::MAILNAMES + "/" + path); !file.empty())
                    stood_[path].insert(file.at("").content);
    }

    void tried(const std::string& moment, int status) {
        Violations violations = judgeCutAfterEnd(golden_, imageOf(disk_));
        if (status != 0)
            violations.push_back("I7 exit status " + std::to_string(status) + " instead of 0");
        report_.tried(name_ + "/" + moment, violations);
    }

    const PowerDisk& disk_;
    const Golden& golden_;
    Report& report_;
    std::string name_;
    Stood stood_;
    long lastCall_ = -1;
    std::size_t images_ = 0;
};

/// What came before the run.
struct Story {
    Start start;
    std::optional<double> killedAt;  // a run before, after this part of its calls
};

// The last one has done everything but to see it onto the disk.
const std::vector<Story> STORIES = {
    {Start::damaged, {}},  {Start::restored, {}}, {Start::damaged, 0.25},
    {Start::damaged, 0.5}, {Start::damaged, 0.8}, {Start::damaged, 0.995},
};

/// Looks for an answer come as often as they like, so that a name has none.
Position positionAt(double part) {
    const std::vector<Call> calls = callsOfRun();
    const auto last = static_cast<double>(calls.back().position.call);
    return {static_cast<std::size_t>(part * last), 0};
}

void tell(const Story& story, const PowerDisk& disk, World& world, Report& report,
          const std::string& fileSystem) {
    DisturbedPower power(disk, world.golden(story.start), report,
                         fileSystem + "/" + nameOf(story.start));
    world.reset(story.start);
    if (story.killedAt) {
        const Position position = positionAt(*story.killedAt);
        world.reset(story.start);
        disk.flush();
        power.kill(position);
    } else {
        disk.flush();
    }
    power.run();
}

bool isConcerned(const Selection& selection, const FileSystem& fileSystem) {
    return selection.only.empty() || selection.only.starts_with(fileSystem.name + "/");
}

/// A quick campaign is content with the first story.
bool isConcerned(const Selection& selection, const Story& story) {
    return selection.full || !selection.only.empty() || &story == &STORIES.front();
}

}  // namespace

void powerCuts(World& world, Report& report, const Selection& selection) {
    for (const FileSystem& fileSystem : fileSystems()) {
        if (!isConcerned(selection, fileSystem))
            continue;
        const std::string obstacle = obstacleTo(fileSystem);
        if (!obstacle.empty()) {
            report.skip(fileSystem.name, obstacle);
            continue;
        }
        const PowerDisk disk(fileSystem);
        for (const Story& story : STORIES)
            if (isConcerned(selection, story))
                tell(story, disk, world, report, fileSystem.name);
    }
}

}  // namespace corvo::faults
