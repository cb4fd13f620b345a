#include "utils/ini_file.h"

#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "utils/guards.h"
#include "utils/strings.h"

namespace {

bool isRegularFile(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);  // root-owned path
}

bool isHeader(std::string_view line) {
    return line.size() > 2 && line.front() == '[' && line.back() == ']';
}

/// The trimmed value within `line` when that assigns to `key`, else null.
char* valueOf(char* line, const char* key) {
    char* equals = std::strchr(line, '=');
    if (equals == nullptr)
        return nullptr;
    *equals = '\0';
    return std::strcmp(corvo_rtrim(line), key) == 0 ? corvo_trim(equals + 1) : nullptr;
}

/// Looks at one line after another of a file.
class Search {
public:
    Search(const char* section, const char* key) : section_(section), key_(key) {}

    /// The value within `line`, or null to go on.
    char* look(char* line) {
        const std::string_view trimmed(line, strip_line(line));
        if (!isHeader(trimmed))
            return inSection_ ? valueOf(line, key_) : nullptr;
        inSection_ = trimmed.substr(1, trimmed.size() - 2) == section_;
        return nullptr;
    }

private:
    std::string_view section_;
    const char* key_;
    bool inSection_ = false;
};

}  // namespace

char* get_ini_conf_var(const char* path, const char* section, const char* key) noexcept {
    errno = 0;
    if (!isRegularFile(path))
        return nullptr;
    const corvo::UniqueFile file(std::fopen(path, "re"));  // root-owned path
    if (file == nullptr) {
        const corvo::ErrnoGuard keepErrno;
        (void)std::fprintf(stderr, "Failed to open %s: %s", path, std::strerror(errno));
        return nullptr;
    }
    Search search(section, key);
    char* line = nullptr;
    std::size_t size = 0;
    const char* value = nullptr;
    while (value == nullptr && getline(&line, &size, file.get()) != -1)
        value = search.look(line);
    const corvo::UniqueCString freeLine(line);
    return value != nullptr ? strdup(value) : nullptr;
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
