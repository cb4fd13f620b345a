// Limits of the process: the size of its files, its descriptors, its memory.

#include <sys/resource.h>

#include <functional>
#include <string>

#include "tests/faults/disturb/preloaded.h"
#include "tests/faults/mechanisms/points.h"

namespace corvo::faults {

namespace {

// Delivery files and maildirsize are shorter than this many bytes; every one of them counts.
constexpr rlim_t LONGEST_TEXT = 160;

// Around the journal's sectors and the pages of a SQLite file, up to more than its size.
constexpr rlim_t LARGEST_DATABASE = 20480;
constexpr rlim_t SECTOR = 512;

constexpr int FEWEST_DESCRIPTORS = 3;
constexpr int MOST_DESCRIPTORS = 40;

constexpr unsigned long MEMORY_STEP = 64UL * 1024;
constexpr unsigned long MEMORY_MOST = 32 * MEMORY_STEP;

/// Every so many limits of a kind are in a quick campaign.
constexpr unsigned long QUICK_STEP = 12;

using Attempt = std::function<void(rlim_t limit)>;

void eachFileSize(const Attempt& attempt) {
    for (rlim_t size = 0; size <= LONGEST_TEXT; ++size)
        attempt(size);
    for (rlim_t size = SECTOR; size <= LARGEST_DATABASE; size += SECTOR)
        for (const rlim_t around : {size - 1, size, size + 1})
            attempt(around);
}

Outcome runWithFilesUpTo(rlim_t size) {
    const auto hurry = preloading({"hurried_sleep"});
    return preparedRun([&] {
        hurry();
        const rlimit both{size, size};
        ::setrlimit(RLIMIT_FSIZE, &both);
    });
}

Outcome runLimitedBy(const std::string& variable, unsigned long limit) {
    return preparedRun(
        preloading({"limits_at_main", "hurried_sleep"}, {{variable, std::to_string(limit)}}));
}

}  // namespace

void processLimits(World& world, Report& report, const Selection& /*selection*/) {
    Points points(world, report);
    for (const Start start : STARTS) {
        unsigned long number = 0;
        const auto attempt = [&](const std::string& kind, unsigned long limit, auto run) {
            points.attempt(start, kind + std::to_string(limit), number++ % QUICK_STEP == 0,
                           [&] { return run(limit); });
        };
        eachFileSize([&](rlim_t size) { attempt("file-size/", size, runWithFilesUpTo); });
        for (unsigned long most = FEWEST_DESCRIPTORS; most <= MOST_DESCRIPTORS; ++most)
            attempt("descriptors/", most, [](unsigned long limit) {
                return runLimitedBy("CORVO_LIMIT_DESCRIPTORS", limit);
            });
        for (unsigned long more = 0; more <= MEMORY_MOST; more += MEMORY_STEP)
            attempt("memory/", more,
                    [](unsigned long limit) { return runLimitedBy("CORVO_LIMIT_MEMORY", limit); });
    }
}

}  // namespace corvo::faults
