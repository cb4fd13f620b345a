// conf_read_file_r against a reader that works on views, and against its own output.

#include <cstdlib>
#include <map>
#include <memory>

#include "fuzz/support.h"
#include "utils/conf_store.h"

namespace {

using corvo::fuzz::require;
using corvo::fuzz::trimmed;
using corvo::fuzz::WHITE_SPACE;
using Pairs = std::map<std::string, std::string>;

constexpr std::string_view NAME_CHARACTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

struct StoreFreer {
    void operator()(conf_store* store) const { conf_free_r(store); }
};
using Store = std::unique_ptr<conf_store, StoreFreer>;

void readExpected(std::string_view line, Pairs& pairs) {
    line = trimmed(line, WHITE_SPACE);
    line = trimmed(line.substr(0, line.find('#')), WHITE_SPACE);
    const std::string_view name = line.substr(0, line.find_first_of(WHITE_SPACE));
    const std::string_view value = trimmed(line.substr(name.size()), WHITE_SPACE);
    if (!name.empty() && !value.empty() &&
        name.find_first_not_of(NAME_CHARACTERS) == std::string_view::npos)
        pairs[std::string(name)] = value;
}

Pairs expectedPairs(std::string_view contents) {
    Pairs pairs;
    while (!contents.empty())
        readExpected(corvo::fuzz::cutAtZero(corvo::fuzz::takeLine(contents)), pairs);
    return pairs;
}

Store readStore(std::string_view contents) {
    const corvo::fuzz::MemoryFile file(contents);
    Store store(static_cast<conf_store*>(std::calloc(1, sizeof(conf_store))));
    corvo::fuzz::must(store != nullptr, "calloc");
    require(conf_read_file_r(file.path(), store.get()) == 0, "every file can be read");
    return store;
}

void requirePairs(const conf_store& store, const Pairs& pairs) {
    require(store.sorted && store.count <= store.capacity, "the store is sound");
    require(store.count == pairs.size(), "each name is there once");
    std::size_t index = 0;
    for (const auto& [name, value] : pairs) {
        require(store.entries[index++].name == name, "names are in order");
        const char* found = conf_get_r(name.c_str(), &store);
        require(found != nullptr && found == value, "the last definition's value is found");
    }
}

std::string asFile(const Pairs& pairs) {
    std::string contents;
    for (const auto& [name, value] : pairs)
        contents.append(name).append(1, ' ').append(value).append(1, '\n');
    return contents;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view contents = corvo::fuzz::textOf(data, size);
    const Pairs pairs = expectedPairs(contents);
    requirePairs(*readStore(contents), pairs);
    requirePairs(*readStore(asFile(pairs)), pairs);
    return 0;
}
