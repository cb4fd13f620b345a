#include "tests/faults/world/power_disk.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "utils/guards.h"

namespace corvo::faults {

namespace {

const std::string ROOM = "/run/power";
const std::string IMAGE = ROOM + "/disk.img";
const std::string COPY = ROOM + "/cut.img";
const std::string DISK = ROOM + "/disk";
const std::string CUT = ROOM + "/cut";

constexpr std::size_t PIECE = std::size_t{1} << 16U;
constexpr int ATTEMPTS = 20;
constexpr long long MIB = 1 << 20;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

test::ProcessResult runOn(const std::vector<std::string>& program, const std::string& image) {
    std::vector<std::string> command = program;
    command.push_back(image);
    return test::run(command);
}

UniqueFd openImage(const std::string& path, int flags) {
    UniqueFd image(::open(path.c_str(), flags | O_CLOEXEC, 0600));
    if (image.get() < 0)
        fail(path);
    return image;
}

bool isZero(const std::vector<char>& piece, std::size_t size) {
    return std::all_of(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(size),
                       [](char byte) { return byte == 0; });
}

/// Copies what is not zero into an empty file of the same size.
void copyBytes(const UniqueFd& from, const UniqueFd& to) {
    const off_t size = ::lseek(from.get(), 0, SEEK_END);
    if (::ftruncate(to.get(), size) != 0)
        fail(COPY);
    std::vector<char> piece(PIECE);
    for (off_t at = ::lseek(from.get(), 0, SEEK_DATA); at >= 0 && at < size;
         at = ::lseek(from.get(), at, SEEK_DATA)) {
        const ssize_t got = ::pread(from.get(), piece.data(), piece.size(), at);
        if (got <= 0)
            fail(IMAGE);
        const auto length = static_cast<std::size_t>(got);
        if (!isZero(piece, length) && ::pwrite(to.get(), piece.data(), length, at) != got)
            fail(COPY);
        at += got;
    }
}

}  // namespace

/// Something mounted as long as this lives.
class PowerDisk::Mount {
public:
    Mount(const std::string& what, std::string where, const char* type, unsigned long flags,
          const std::string& options)
        : where_(std::move(where)) {
        test::makeDirectory(where_);
        if (::mount(what.c_str(), where_.c_str(), type, flags, options.c_str()) != 0)
            fail("mount " + what + " on " + where_);
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    ~Mount() {
        if (::umount2(where_.c_str(), 0) != 0)
            (void)::umount2(where_.c_str(), MNT_DETACH);
    }

private:
    std::string where_;
};

const std::vector<FileSystem>& fileSystems() {
    static const std::vector<FileSystem> all = {
        {"ext4",
         600 * MIB,
         {"/usr/sbin/mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0"},
         {"/usr/sbin/e2fsck", "-f", "-n"},
         ""},
        {"xfs",
         300 * MIB,
         {"/usr/sbin/mkfs.xfs", "-q"},
         {"/usr/sbin/xfs_repair", "-n", "-f"},
         "nouuid"},
    };
    return all;
}

std::string obstacleTo(const FileSystem& fileSystem) {
    for (const std::string& program : {fileSystem.make.front(), fileSystem.check.front()})
        if (!test::exists(program))
            return "there is no " + program;
    try {
        const PowerDisk disk(fileSystem);
    } catch (const std::runtime_error& error) {
        return std::string("no disk can be had: ") + error.what();
    }
    return "";
}

PowerDisk::PowerDisk(const FileSystem& fileSystem)
    : fileSystem_(fileSystem),
      room_(std::make_unique<Mount>("tmpfs", ROOM, "tmpfs", 0, "mode=0700")) {
    const UniqueFd image = openImage(IMAGE, O_RDWR | O_CREAT);
    if (::ftruncate(image.get(), fileSystem.size) != 0)
        fail(IMAGE);
    const test::ProcessResult made = runOn(fileSystem.make, IMAGE);
    if (made.status != 0)
        throw std::runtime_error(fileSystem.make.front() + ": " + made.err);
    device_ = std::make_unique<LoopDevice>(IMAGE);
    disk_ = std::make_unique<Mount>(device_->path(), DISK, fileSystem.name.c_str(), 0, "");
    test::makeDirectory(DISK + "/qmail");
    test::makeDirectory(DISK + "/corvo");
    storage_ = std::make_unique<Mount>(DISK + "/qmail", "/var/qmail", nullptr, MS_BIND, "");
    databases_ = std::make_unique<Mount>(DISK + "/corvo", "/var/lib/corvo", nullptr, MS_BIND, "");
}

PowerDisk::~PowerDisk() = default;

void PowerDisk::flush() const {
    const UniqueFd disk(::open(DISK.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (disk.get() < 0 || ::syncfs(disk.get()) != 0)
        fail("syncfs " + DISK);
}

/// A copy during which something was sent is none: a power cut takes no time.
void PowerDisk::copyImage() const {
    const UniqueFd image = openImage(IMAGE, O_RDONLY);
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const UniqueFd copy = openImage(COPY, O_RDWR | O_CREAT | O_TRUNC);
        const std::string before = device_->writes();
        copyBytes(image, copy);
        if (device_->writes() == before)
            return;
    }
    throw std::runtime_error("the disk is never quiet");
}

PowerDisk::Found PowerDisk::cut() const {
    copyImage();
    Found found;
    {
        const LoopDevice device(COPY);
        const Mount mount(device.path(), CUT, fileSystem_.name.c_str(), 0, fileSystem_.options);
        found.snapshot = Snapshot::of(readTree(CUT + "/qmail/mailnames"), readTree(CUT + "/corvo"));
    }
    const test::ProcessResult check = runOn(fileSystem_.check, COPY);
    if (check.status != 0)
        found.damage = check.out + check.err;
    return found;
}

}  // namespace corvo::faults
