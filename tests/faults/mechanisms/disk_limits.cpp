// Disks without space, without inodes, or mounted for reading only. Space is given back before the
// run that repairs.

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "tests/faults/disturb/preloaded.h"
#include "tests/faults/mechanisms/points.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr unsigned long PAGE = 4096;

// More than a run needs, and finite: Linux gives a file system without limits none later.
constexpr unsigned long AMPLE_PAGES = 1UL << 16U;
constexpr unsigned long AMPLE_INODES = 1UL << 16U;

void check(int result, const std::string& what) {
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

int remount(const std::string& mountPoint, unsigned long pages, unsigned long inodes) {
    const std::string limits =
        "size=" + std::to_string(pages * PAGE) + ",nr_inodes=" + std::to_string(inodes);
    return ::mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT, limits.c_str());
}

void setLimits(const std::string& mountPoint, unsigned long pages, unsigned long inodes) {
    check(remount(mountPoint, pages, inodes), "limits for " + mountPoint);
}

/// Which of a file system's means run out.
enum class Scarce { space, inodes };

/// Leaves only so much to one of the sandbox's tmpfs mounts, as long as this lives.
class NearlyFull {
public:
    NearlyFull(std::string mountPoint, Scarce scarce, unsigned long left)
        : mountPoint_(std::move(mountPoint)) {
        struct statvfs usage {};
        check(::statvfs(mountPoint_.c_str(), &usage), "statvfs");
        if (scarce == Scarce::space)
            setLimits(mountPoint_, usage.f_blocks - usage.f_bfree + left, AMPLE_INODES);
        else
            setLimits(mountPoint_, AMPLE_PAGES, usage.f_files - usage.f_ffree + left);
    }
    /// Should it fail, the run that repairs will not get far.
    ~NearlyFull() { (void)remount(mountPoint_, AMPLE_PAGES, AMPLE_INODES); }
    NearlyFull(const NearlyFull&) = delete;
    NearlyFull& operator=(const NearlyFull&) = delete;

private:
    std::string mountPoint_;
};

/// Binds a folder to its own place, for reading only, as long as this lives.
class ReadOnly {
public:
    explicit ReadOnly(std::string folder) : folder_(std::move(folder)) {
        const char* const path = folder_.c_str();
        check(::mount(path, path, nullptr, MS_BIND, nullptr), "bind " + folder_);
        check(::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              "write-protect " + folder_);
    }
    ~ReadOnly() { ::umount2(folder_.c_str(), MNT_DETACH); }
    ReadOnly(const ReadOnly&) = delete;
    ReadOnly& operator=(const ReadOnly&) = delete;

private:
    std::string folder_;
};

/// Every amount of pages or inodes from nothing to `last`: a little more than such a run takes.
struct Sweep {
    const char* name;
    const char* mountPoint;
    Scarce scarce;
    Start start;
    unsigned long last;
};

constexpr Sweep SWEEPS[] = {
    {"storage-space", "/var/qmail", Scarce::space, Start::damaged, 13},
    {"storage-space", "/var/qmail", Scarce::space, Start::restored, 2},
    {"storage-inodes", "/var/qmail", Scarce::inodes, Start::damaged, 175},
    {"storage-inodes", "/var/qmail", Scarce::inodes, Start::restored, 2},
    {"database-space", "/var/lib/corvo", Scarce::space, Start::damaged, 8},
    {"database-space", "/var/lib/corvo", Scarce::space, Start::restored, 8},
    {"database-inodes", "/var/lib/corvo", Scarce::inodes, Start::damaged, 1},
    {"database-inodes", "/var/lib/corvo", Scarce::inodes, Start::restored, 1},
    {"lock-inodes", "/run", Scarce::inodes, Start::damaged, 7},
};

constexpr const char* PROTECTED[] = {"/var/qmail/mailnames", "/var/lib/corvo", "/run/lock/files"};

/// Every so many limits are in a quick campaign.
constexpr unsigned long QUICK_STEP = 8;

void tryLimits(Points& points, const Sweep& sweep) {
    for (unsigned long left = 0; left <= sweep.last; ++left)
        points.attempt(sweep.start, std::string(sweep.name) + "/" + std::to_string(left),
                       left % QUICK_STEP == 0, [&] {
                           const NearlyFull limits(sweep.mountPoint, sweep.scarce, left);
                           return hurriedRun();
                       });
}

}  // namespace

void diskLimits(World& world, Report& report, const Selection& /*selection*/) {
    Points points(world, report);
    preloading({"hurried_sleep"});  // copied before any disk is full
    for (const char* const mountPoint : {"/var/qmail", "/var/lib/corvo", "/run"})
        setLimits(mountPoint, AMPLE_PAGES, AMPLE_INODES);
    for (const Sweep& sweep : SWEEPS)
        tryLimits(points, sweep);
    for (const Start start : STARTS)
        for (const std::string folder : PROTECTED)
            points.attempt(start, "read-only" + folder, true, [&] {
                const ReadOnly bind(folder);
                return hurriedRun();
            });
}

}  // namespace corvo::faults
