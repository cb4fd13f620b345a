// Standard streams that are closed, whose reader is gone, or whose disk is full: the run restores
// everything all the same, and no message gets into a file.

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/faults/mechanisms/points.h"

namespace corvo::faults {

namespace {

struct Condition {
    const char* name;
    void (*impose)(int fd);
};

void leave(int /*fd*/) {}

void closeIt(int fd) {
    ::close(fd);
}

void takeReaderAway(int fd) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        ::_exit(127);
    ::dup2(ends[1], fd);
}

void fillUp(int fd) {
    ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), fd);
}

constexpr Condition OPEN = {"open", leave};
constexpr Condition CLOSED = {"closed", closeIt};

constexpr Condition OF_INPUT[] = {OPEN, CLOSED};
constexpr Condition OF_OUTPUT[] = {OPEN, CLOSED, {"unread", takeReaderAway}, {"full", fillUp}};

struct Streams {
    Condition in, out, err;
    std::string name() const { return std::string(in.name) + "-" + out.name + "-" + err.name; }
};

std::vector<Streams> combinations() {
    std::vector<Streams> all;
    for (const Condition& in : OF_INPUT)
        for (const Condition& out : OF_OUTPUT)
            for (const Condition& err : OF_OUTPUT)
                all.push_back({in, out, err});
    return all;
}

// The new files are made before any standard descriptor is free to take.
Outcome runWith(const Streams& streams, const std::string& mode) {
    return preparedRun(
        [&] {
            for (const bool closing : {false, true}) {
                int fd = STDIN_FILENO;
                for (const Condition& condition : {streams.in, streams.out, streams.err}) {
                    if ((condition.impose == closeIt) == closing)
                        condition.impose(fd);
                    ++fd;
                }
            }
        },
        mode);
}

/// Lost messages are no excuse: the run has to end as ever.
void tryStreams(World& world, Report& report, Start start, const Streams& streams,
                const std::string& mode) {
    const std::string point = nameOf(start) + "/" + streams.name() + mode;
    if (!report.wants(point))
        return;
    int status = -1;
    Violations violations = judge(world, start, [&] {
        const Outcome outcome = runWith(streams, mode);
        status = outcome.status;
        return outcome;
    });
    if (status != 0)
        violations.push_back("I7 exit status " + std::to_string(status) + " instead of 0");
    report.tried(point, violations);
}

}  // namespace

void standardStreams(World& world, Report& report, const Selection& /*selection*/) {
    for (const Streams& streams : combinations()) {
        for (const Start start : STARTS)
            tryStreams(world, report, start, streams, "--all");
        // From a restored server there is nothing left for this mode to leave undone.
        tryStreams(world, report, Start::restored, streams, "--fast");
    }
}

}  // namespace corvo::faults
