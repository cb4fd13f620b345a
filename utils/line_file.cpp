#include "utils/line_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string_view>

#include "utils/file_lock.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/line_rewrite.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace safe_path = corvo::safe_path;

namespace {

using corvo::line_rewrite::LineReader;
using corvo::line_rewrite::Replacement;
using corvo::line_rewrite::Target;

constexpr mode_t NEW_FILE_MODE = 0666;
constexpr mode_t SPECIAL_BITS = S_ISUID | S_ISGID | S_ISVTX;

int unableToOpen(const char* path) noexcept {
    messlog2(0, 0, MESSLOG_UNABLE_TO_OPEN, path, std::strerror(errno));
    return 1;
}

int unableToWriteData(const char* path) noexcept {
    messlog2(0, 0, "Unable to write data into file %s: %s\n", path, std::strerror(errno));
    return 1;
}

int unableToRead(const char* path) noexcept {
    messlog2(0, 0, "Unable to read file %s: %s\n", path, std::strerror(errno));
    return 1;
}

int unableToClose(const char* path) noexcept {
    messlog2(0, 0, "Unable to close file %s: %s\n", path, std::strerror(errno));
    return 1;
}

// Reports on standard error alone. Returns 1; keeps errno.
int printError(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

int printError(const char* format, ...) noexcept {
    const corvo::ErrnoGuard keepErrno;
    va_list arguments;
    va_start(arguments, format);
    (void)std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    return 1;
}

// The set-id and sticky bits that stay: those of a file of root's that nobody but root can have
// put there, as they are now. `former` tells of the file before it was read: whoever wrote to it
// since then has made it lose them, and must not get them back for his text.
mode_t specialBits(const Target& target, int file, const struct stat& former) noexcept {
    struct stat now = {};
    if ((former.st_mode & SPECIAL_BITS) == 0 || !target.isRootsOwn(former) ||
        ::fstat(file, &now) != 0)
        return 0;
    return now.st_mode & SPECIAL_BITS;
}

// Gives `file` the owner, group and mode of `old`, of which `former` tells, as far as they last;
// 0, or 1 after a report. Both may be the same file.
int restorePermissions(const Target& target, int file, int old,
                       const struct stat& former) noexcept {
    const mode_t mode = (former.st_mode & ACCESSPERMS) | specialBits(target, old, former);
    safe_path::PermissionStep failed = {};
    if (safe_path::setOwnerAndMode(file, former.st_uid, former.st_gid, mode, &failed) == 0)
        return 0;
    const char* const path = target.path();
    if (failed == safe_path::PermissionStep::chown)
        messlog2(0, 0, "file_str: ERROR: Unable to chown file %s: %s", path, std::strerror(errno));
    else
        messlog2(0, 0, "file_str: ERROR: Unable to chmod file %s: %s", path, std::strerror(errno));
    return 1;
}

bool write(std::FILE* stream, std::string_view text) noexcept {
    // There is one thread: a lock for every line would guard against nobody.
    return ::fwrite_unlocked(text.data(), 1, text.size(), stream) == text.size();
}

// Writes the lines at the end of an open file; 0, or 1 after a report.
int writeAtEnd(corvo::UniqueFd& file, const char* const* list, const char* path) noexcept {
    corvo::UniqueFile stream = corvo::line_rewrite::openWriter(file);
    if (!stream)
        return unableToOpen(path);
    if (write_strings(stream.get(), list) != 0)
        return unableToWriteData(path);
    if (std::fclose(stream.release()) != 0)
        return unableToClose(path);
    return flush_data(file.get()) == 0 ? 0 : unableToWriteData(path);
}

// Takes back what a failed append left behind: the next one would continue half a line.
void takeBack(const Target& target, int file, const struct stat& former, bool isNew) noexcept {
    const corvo::ErrnoGuard keepErrno;
    (void)!corvo::retryOnEintr([&] { return ::ftruncate(file, former.st_size); });
    if (isNew && target.isNameOf(file))
        (void)!safe_path::unlinkEntry(target.base(), target.name());
}

corvo::UniqueFd openToAppend(const Target& target, int access, struct stat& former) noexcept {
    return safe_path::openFile(target.base(), target.name(), access | O_CREAT | O_APPEND,
                               NEW_FILE_MODE, former);
}

int appendTo(corvo::UniqueFd& file, const struct stat& former, const Target& target,
             const char* const* list, bool isNew) noexcept {
    if (writeAtEnd(file, list, target.path()) != 0) {
        takeBack(target, file.get(), former, isNew);
        return 1;
    }
    return isNew ? 0 : restorePermissions(target, file.get(), file.get(), former);
}

int append(const Target& target, const char* const* list, bool isNew) noexcept {
    struct stat former = {};
    corvo::UniqueFd file = openToAppend(target, O_WRONLY, former);
    if (!file)
        return unableToOpen(target.path());
    return appendTo(file, former, target, list, isNew);
}

// Whether the last line of a file of that size lacks its newline: 1 or 0, or -1 with errno.
int endsWithinLine(int file, off_t size) noexcept {
    char last = '\n';
    if (size > 0 && corvo::retryOnEintr([&] { return ::pread(file, &last, 1, size - 1); }) < 0)
        return -1;
    return last != '\n' ? 1 : 0;
}

int appendLine(const Target& target, const char* line, bool isNew) noexcept {
    struct stat former = {};
    corvo::UniqueFd file = openToAppend(target, O_RDWR, former);
    if (!file)
        return unableToOpen(target.path());
    const int unfinished = endsWithinLine(file.get(), former.st_size);
    if (unfinished < 0)
        return unableToRead(target.path());
    const char* const list[] = {"", line, nullptr};  // the empty one is written as a newline
    return appendTo(file, former, target, unfinished != 0 ? list : list + 1, isNew);
}

// Ends the writing of new contents, which are whole when the old ones were read to their end and
// the close succeeded; 0, or 1 after a report.
int finish(Replacement& fresh, const LineReader& old, const Target& target) noexcept {
    if (old.failed())
        return unableToRead(target.path());
    if (restorePermissions(target, fresh.file(), old.file(), old.seen()) != 0)
        return 1;
    return fresh.close() == 0 ? 0 : unableToClose(fresh.path());
}

int unableToCopy(Replacement& fresh, const char*) noexcept {
    messlog2(0, 0, "Unable to fputs to file %s: %s\n", fresh.path(), std::strerror(errno));
    return 1;
}

int prepend(const Target& target, const char* const* list) noexcept {
    Replacement fresh(target);
    if (!fresh.create())
        return unableToOpen(fresh.path());
    if (write_strings(fresh.stream(), list) != 0)
        return unableToWriteData(fresh.path());
    LineReader old;
    if (!old.open(target))
        return unableToOpen(target.path());
    for (auto line = old.next(); !line.empty(); line = old.next()) {
        if (!write(fresh.stream(), line))
            return unableToCopy(fresh, target.path());
    }
    if (finish(fresh, old, target) != 0)
        return 1;
    if (fresh.moveIntoPlace() == 0)
        return 0;
    return printError("Unable to rename file %s: %s\n", fresh.path(), std::strerror(errno));
}

using Matcher = bool (*)(std::string_view line, std::string_view text);

std::string_view withoutNewline(std::string_view line) noexcept {
    if (line.ends_with('\n'))
        line.remove_suffix(1);
    return line;
}

bool equals(std::string_view line, std::string_view text) noexcept {
    return withoutNewline(line) == withoutNewline(text);
}

bool hasPrefix(std::string_view line, std::string_view text) noexcept {
    return line.starts_with(text);
}

bool hasSuffix(std::string_view line, std::string_view text) noexcept {
    return withoutNewline(line).ends_with(text);
}

bool hasSubstring(std::string_view line, std::string_view text) noexcept {
    return line.find(text) != std::string_view::npos;
}

bool matchesNothing(std::string_view, std::string_view) noexcept {
    return false;
}

Matcher patternMatcher(int where) noexcept {
    switch (where) {
        case FILE_STRINGS_PREFIX:
            return hasPrefix;
        case FILE_STRINGS_SUFFIX:
            return hasSuffix;
        case FILE_STRINGS_SUBSTRING:
            return hasSubstring;
        default:
            return matchesNothing;
    }
}

bool matchesAny(std::string_view line, const char* const* list, Matcher matches) noexcept {
    for (; *list != nullptr; ++list) {
        if (matches(line, *list))
            return true;
    }
    return false;
}

// What becomes of a removal whose line cannot be written.
using WriteFailure = int (*)(Replacement& fresh, const char* path) noexcept;

int endProcessUnwritten(Replacement& fresh, const char* path) noexcept {
    fresh.discard();
    messlog2(1, 1, "cannot write a line to %s.tmp", path);
    return 1;
}

int removeLines(const Target& target, const char* const* list, Matcher matches,
                WriteFailure unableToWrite) noexcept {
    LineReader old;
    if (!old.open(target))
        return unableToOpen(target.path());
    Replacement fresh(target);
    if (!fresh.create())
        return printError(MESSLOG_UNABLE_TO_OPEN, fresh.path(), std::strerror(errno));
    for (auto line = old.next(); !line.empty(); line = old.next()) {
        if (!matchesAny(line, list, matches) && !write(fresh.stream(), line))
            return unableToWrite(fresh, target.path());
    }
    if (finish(fresh, old, target) != 0)
        return 1;
    if (fresh.moveIntoPlace() == 0)
        return 0;
    return printError("Error while rename file %s: %s\n", fresh.path(), std::strerror(errno));
}

int perform(const Target& target, const char* const* list, int action, int where,
            bool isNew) noexcept {
    if (action == FILE_STRINGS_ADD && where == FILE_STRINGS_APPEND)
        return append(target, list, isNew);
    if (action == FILE_STRINGS_ADD && where == FILE_STRINGS_PREPEND)
        return prepend(target, list);
    if (action == FILE_STRINGS_REMOVE && isNew)
        return 1;
    if (action == FILE_STRINGS_REMOVE)
        return removeLines(target, list, equals, endProcessUnwritten);
    if (action == FILE_STRINGS_REMOVE_PATTERN)
        return removeLines(target, list, patternMatcher(where), unableToCopy);
    return 0;
}

// Runs `change` on the file under its lock, with whether it is a new one.
template <typename Change>
int changeLocked(const char* path, Change change) noexcept {
    corvo::LineLock lock(path);
    if (!lock.isHeld()) {
        lock.report();
        return 1;
    }
    const Target target(path);
    const int hidden = target.look();
    if (hidden != 0 && hidden != ENOENT) {
        messlog2(0, 0, "file_str: Unable to stat file %s: %s\n", path, std::strerror(hidden));
        lock.keep();
        return 1;
    }
    if (change(target, hidden == ENOENT) == 0)
        return lock.release() == 0 ? 0 : 1;
    const corvo::ErrnoGuard keepErrno;
    (void)lock.release();
    return 1;
}

}  // namespace

int file_strings(const char* path, const char* const* list, int action, int where) noexcept {
    return changeLocked(path, [=](const Target& target, bool isNew) {
        return perform(target, list, action, where, isNew);
    });
}

int file_str(const char* path, const char* line, int action, int where) noexcept {
    const char* const list[] = {line, nullptr};
    return file_strings(path, list, action, where);
}

int file_append_line(const char* path, const char* line) noexcept {
    return changeLocked(
        path, [=](const Target& target, bool isNew) { return appendLine(target, line, isNew); });
}

int write_strings(std::FILE* stream, const char* const* list) noexcept {
    for (; *list != nullptr; ++list) {
        const std::string_view text = *list;
        if (!write(stream, text))
            return -1;
        if (!text.ends_with('\n') && !write(stream, "\n"))
            return -1;
    }
    return 0;
}
