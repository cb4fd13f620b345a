#include "utils/ini_file.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "utils/guards.h"
#include "utils/strings.h"

namespace {

constexpr std::size_t LONGEST_LINE = std::size_t{128} * 1024;  // bytes, with its newline

bool isRegularFile(const char* path) {
    struct stat status = {};
    return ::stat(path, &status) == 0 && S_ISREG(status.st_mode);  // root-owned path
}

bool isHeader(std::string_view line) {
    return line.size() > 2 && line.front() == '[' && line.back() == ']';
}

// Looks for the values of several keys in one line after another of a file.
class Search {
public:
    Search(const char* section, std::span<const ini_value> wanted)
        : section_(section), wanted_(wanted), missing_(wanted.size()) {}

    bool isOver() const { return missing_ == 0; }

    // Takes the value that `line` assigns. False when there is no memory for it.
    bool look(char* line) {
        const std::string_view trimmed(line, strip_line(line));
        if (!isHeader(trimmed))
            return !inSection_ || takeValue(line);
        inSection_ = trimmed.substr(1, trimmed.size() - 2) == section_;
        return true;
    }

private:
    bool takeValue(char* line) {
        char* equals = std::strchr(line, '=');
        if (equals == nullptr)
            return true;
        *equals = '\0';
        const char* const name = corvo_rtrim(line);
        for (const auto& [key, value] : wanted_) {
            if (value != nullptr || std::strcmp(name, key) != 0)
                continue;
            value.reset(::strdup(corvo_trim(equals + 1)));
            --missing_;
            return value != nullptr;
        }
        return true;
    }

    std::string_view section_;
    std::span<const ini_value> wanted_;
    std::size_t missing_;
    bool inSection_ = false;
};

using LineBuffer = char[LONGEST_LINE + 1];

// The lines of an open file, one after another. Those longer than LONGEST_LINE are left out.
class Lines {
public:
    Lines(int file, LineBuffer& buffer) : file_(file), buffer_(buffer) {}

    // The next line, with a zero byte in place of its newline; it may be changed, and lives until
    // the next call. Null at the end and on failure.
    char* next() {
        for (;;) {
            char* const line = takeLine();
            if (line == nullptr && !fill())
                return nullptr;
            if (line != nullptr && !std::exchange(isTail_, false))
                return line;
        }
    }

private:
    // The next line if all of it has been read, else null.
    char* takeLine() {
        char* const line = buffer_ + taken_;
        char* const limit = buffer_ + filled_;
        char* const lineEnd = std::find(line, limit, '\n');
        if (lineEnd == limit && (line == limit || !hasEnded_))
            return nullptr;
        *lineEnd = '\0';
        taken_ = std::min(filled_, static_cast<std::size_t>(lineEnd - buffer_) + 1);
        return line;
    }

    // Reads on, in place of what was taken. False after the end and on failure.
    bool fill() {
        if (hasEnded_)
            return false;
        if (taken_ == 0 && filled_ == LONGEST_LINE) {
            taken_ = filled_;
            isTail_ = true;
        }
        filled_ -= taken_;
        std::memmove(buffer_, buffer_ + taken_, filled_);
        taken_ = 0;
        const ssize_t length = corvo::retryOnEintr(
            [this] { return ::read(file_, buffer_ + filled_, LONGEST_LINE - filled_); });
        hasEnded_ = length == 0;
        filled_ += length > 0 ? static_cast<std::size_t>(length) : 0;
        return length >= 0;
    }

    int file_;
    std::size_t taken_ = 0;   // bytes of the buffer
    std::size_t filled_ = 0;  // likewise
    bool hasEnded_ = false;
    bool isTail_ = false;  // of a line that was too long
    LineBuffer& buffer_;
};

// True when every value was found.
bool searchLines(Lines& lines, Search search) {
    while (!search.isOver()) {
        char* const line = lines.next();
        if (line == nullptr || !search.look(line))
            return false;
    }
    return true;
}

// Reports each value that cannot be read; the first one is the last that is tried without memory.
void reportFailedOpen(const char* path, std::size_t values) noexcept {
    const corvo::ErrnoGuard keepErrno;
    const std::size_t reports = errno == ENOMEM ? 1 : values;
    for (std::size_t i = 0; i < reports; ++i)
        (void)std::fprintf(stderr, "Failed to open %s: %s", path, std::strerror(errno));
}

}  // namespace

int get_ini_conf_vars(const char* path, const char* section,
                      std::span<const ini_value> wanted) noexcept {
    for (const ini_value& one : wanted)
        one.value.reset();
    errno = 0;
    if (!isRegularFile(path))
        return -1;
    const corvo::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));  // root-owned path
    if (!file) {
        reportFailedOpen(path, wanted.size());
        return -1;
    }
    static LineBuffer buffer;  // a process without memory has no room for it on its stack
    Lines lines(file.get(), buffer);
    return searchLines(lines, Search(section, wanted)) ? 0 : -1;
}

char* get_ini_conf_var(const char* path, const char* section, const char* key) noexcept {
    corvo::UniqueCString value;
    const ini_value wanted[] = {{key, value}};
    (void)get_ini_conf_vars(path, section, wanted);
    return value.release();
}

int get_ini_conf_var_bool(const char* path, const char* section, const char* key,
                          int fallback) noexcept {
    const corvo::UniqueCString value(get_ini_conf_var(path, section, key));
    if (value == nullptr || *value == '\0')
        return fallback;
    for (const char* word : {"on", "true", "yes", "1"}) {
        if (::strcasecmp(value.get(), word) == 0)
            return 1;
    }
    return 0;
}
