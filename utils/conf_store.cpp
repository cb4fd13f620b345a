#include "utils/conf_store.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/guards.h"
#include "utils/log.h"
#include "utils/strings.h"

namespace {

constexpr int PRIORITY = LOG_USER | LOG_WARNING;  // 12
constexpr std::size_t FIRST_CAPACITY = 20;
constexpr const char* BLANKS = " \t\n\v\f\r";

bool isNameCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

int cmp_conf(const void* left, const void* right) {
    return std::strcmp(static_cast<const conf_entry*>(left)->name,
                       static_cast<const conf_entry*>(right)->name);
}

conf_entry* findByHalves(const char* name, const conf_store& store) {
    const auto compare = [](const void* wanted, const void* entry) {
        return std::strcmp(static_cast<const char*>(wanted),
                           static_cast<const conf_entry*>(entry)->name);
    };
    return static_cast<conf_entry*>(
        std::bsearch(name, store.entries, store.count, sizeof *store.entries, compare));
}

conf_entry* findInTurn(const char* name, const conf_store& store) {
    for (std::size_t i = 0; i < store.count; ++i) {
        if (std::strcmp(store.entries[i].name, name) == 0)
            return &store.entries[i];
    }
    return nullptr;
}

// Sets the pair that stands in `line`, or logs what is wrong with it. -1 only when it cannot be
// set.
int readLine(char* line, conf_store* store) {
    char* name = corvo_trim(line);
    if (*name == '\0' || *name == '#')
        return 0;
    char* end = name;
    while (isNameCharacter(*end))
        ++end;
    char* value = end + std::strspn(end, BLANKS);
    if (end == name || (value == end && *end != '\0')) {
        corvo::Log().line(PRIORITY,
                          "Invalid variable definition %s\nExpected a space after variable name\n",
                          name);
        return 0;
    }
    if (*value == '\0' || *value == '#') {
        corvo::Log().line(PRIORITY, "Invalid variable definition %s\nExpected a value", name);
        return 0;
    }
    *end = '\0';
    value[std::strcspn(value, "#")] = '\0';
    return conf_set_r(name, corvo_rtrim(value), store);
}

int readLines(std::FILE* file, conf_store* store) {
    char* line = nullptr;
    std::size_t size = 0;
    int result = 0;
    while (result == 0 && ::getline(&line, &size, file) != -1)
        result = readLine(line, store);
    const corvo::UniqueCString freeLine(line);
    if (result == 0 && std::feof(file) == 0) {
        corvo::Log().line(PRIORITY, "Unable to read configuration file: %s", std::strerror(errno));
        result = -1;
    }
    return result;
}

}  // namespace

int conf_init_r(conf_store* store) noexcept {
    const bool first = store->entries == nullptr;
    if (!first && store->count < store->capacity)
        return 0;
    const std::size_t capacity = first ? FIRST_CAPACITY : store->capacity * 2;
    auto* entries =
        static_cast<conf_entry*>(::reallocarray(store->entries, capacity, sizeof(conf_entry)));
    if (entries == nullptr) {
        corvo::Log().line(PRIORITY, "Unable to read configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    std::memset(entries + store->count, 0, (capacity - store->count) * sizeof *entries);
    store->entries = entries;
    store->capacity = capacity;
    if (first)
        store->sorted = true;
    return 0;
}

int conf_set_r(const char* name, const char* value, conf_store* store) noexcept {
    corvo::UniqueCString nameCopy(::strdup(name));
    corvo::UniqueCString valueCopy(::strdup(value));
    if (nameCopy == nullptr || valueCopy == nullptr) {
        corvo::Log().line(PRIORITY, "Unable to form configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    if (conf_entry* known = findInTurn(name, *store); known != nullptr) {
        std::free(known->value);
        known->value = valueCopy.release();
        return 0;
    }
    if (conf_init_r(store) != 0)
        return -1;
    store->entries[store->count++] = {nameCopy.release(), valueCopy.release()};
    store->sorted = false;
    return 0;
}

void conf_finalize_r(conf_store* store) noexcept {
    if (!store->sorted && store->count > 0)
        std::qsort(store->entries, store->count, sizeof *store->entries, cmp_conf);
    store->sorted = true;
}

const char* conf_get_r(const char* name, const conf_store* store) noexcept {
    const conf_entry* entry = nullptr;
    if (store->sorted && store->count > 0)
        entry = findByHalves(name, *store);
    else
        entry = findInTurn(name, *store);
    return entry != nullptr ? entry->value : nullptr;
}

int conf_read_file_r(const char* path, conf_store* store) noexcept {
    if (conf_init_r(store) != 0)
        return -1;
    const corvo::UniqueFile file(std::fopen(path, "re"));  // root-owned path
    if (file == nullptr) {
        corvo::Log().line(PRIORITY, "unable to open configuration file %s: %s\n", path,
                          std::strerror(errno));
        return -1;
    }
    if (readLines(file.get(), store) != 0)
        return -1;
    conf_finalize_r(store);
    return 0;
}

void conf_free_r(conf_store* store) noexcept {
    const corvo::ErrnoGuard keepErrno;
    if (store == nullptr)
        return;
    for (std::size_t i = 0; i < store->count; ++i) {
        std::free(store->entries[i].name);
        std::free(store->entries[i].value);
    }
    std::free(store->entries);
    std::free(store);
}
