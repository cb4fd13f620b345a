#include "utils/ini_file.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "utils/files.h"
#include "utils/guards.h"
#include "utils/strings.h"

namespace {

bool isRegularFile(const char* path, struct stat& status) {
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);  // root-owned path
}

bool isHeader(std::string_view line) {
    return line.size() > 2 && line.front() == '[' && line.back() == ']';
}

/// Looks for the values of several keys in one line after another of a file.
class Search {
public:
    Search(const char* section, std::span<const ini_value> wanted)
        : section_(section), wanted_(wanted), missing_(wanted.size()) {}

    bool isOver() const { return missing_ == 0; }

    /// Takes the value that `line` assigns. False when there is no memory for it.
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
            value.reset(strdup(corvo_trim(equals + 1)));
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

/// Looks at the lines of a text, which has room for one character more; true when every value was
/// found.
bool searchLines(char* text, std::size_t length, Search search) {
    char* const end = text + length;
    for (char* line = text; line < end && !search.isOver();) {
        char* const lineEnd = std::find(line, end, '\n');
        *lineEnd = '\0';
        if (!search.look(line))
            return false;
        line = lineEnd + 1;
    }
    return search.isOver();
}

/// Reports each value that cannot be read; the first one is the last that is tried without memory.
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
    struct stat status {};
    if (!isRegularFile(path, status))
        return -1;
    const corvo::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));  // root-owned path
    const auto size = static_cast<std::size_t>(status.st_size);
    const corvo::UniqueCString text(file ? static_cast<char*>(std::malloc(size + 1)) : nullptr);
    if (!text) {
        reportFailedOpen(path, wanted.size());
        return -1;
    }
    // What comes beyond that size was not there yet when the file was looked at.
    const ssize_t length = read_fully(file.get(), text.get(), size);
    return length >= 0 && searchLines(text.get(), static_cast<std::size_t>(length),
                                      Search(section, wanted))
               ? 0
               : -1;
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
        if (strcasecmp(value.get(), word) == 0)
            return 1;
    }
    return 0;
}
