#include "fuzz/support.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvo::fuzz {

namespace {

void writeAll(int file, std::string_view contents) {
    while (!contents.empty()) {
        const ssize_t written = ::write(file, contents.data(), contents.size());
        must(written > 0, "write");
        contents.remove_prefix(static_cast<std::size_t>(written));
    }
}

// The exit status that CTest takes for "skipped".
constexpr int SKIPPED = 77;

void enterMountNamespace() {
    if (::unshare(CLONE_NEWNS) == 0)
        return;
    (void)std::fprintf(stderr, "skipped: no private mount namespace can be made here: %s\n",
                       std::strerror(errno));
    std::exit(SKIPPED);
}

std::string makeScratchFolder() {
    enterMountNamespace();
    must(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    must(::mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0, "an empty /run");
    for (const char* folder : {"/run/lock", "/run/lock/files", "/run/scratch"})
        must(::mkdir(folder, 0700) == 0, folder);
    return "/run/scratch";
}

}  // namespace

void require(bool holds, const char* property) {
    if (holds)
        return;
    (void)std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

void must(bool done, const char* step) {
    if (done)
        return;
    (void)std::fprintf(stderr, "%s: %s\n", step, std::strerror(errno));
    std::abort();
}

std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

std::string cutAtZero(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() == text.size() ? line.size() : line.size() + 1);
    return line;
}

std::string_view trimmed(std::string_view text, std::string_view characters) {
    const std::size_t first = text.find_first_not_of(characters);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

MemoryFile::MemoryFile(std::string_view contents)
    : file_(::memfd_create("fuzz", MFD_CLOEXEC)),
      path_("/proc/self/fd/" + std::to_string(file_.get())) {
    must(static_cast<bool>(file_), "memfd_create");
    writeAll(file_.get(), contents);
}

const std::string& scratchFolder() {
    static const std::string folder = makeScratchFolder();
    return folder;
}

void writeFile(const std::string& path, std::string_view contents) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    must(static_cast<bool>(file), "open for writing");
    writeAll(file.get(), contents);
}

std::string contentsOf(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    must(static_cast<bool>(file), "open for reading");
    std::string contents;
    char block[4096];
    ssize_t count = 0;
    while ((count = ::read(file.get(), block, sizeof block)) > 0)
        contents.append(block, static_cast<std::size_t>(count));
    must(count == 0, "read");
    return contents;
}

}  // namespace corvo::fuzz
