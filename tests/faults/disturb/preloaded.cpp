#include "tests/faults/disturb/preloaded.h"

#include <cstdlib>

#include "tests/support/files.h"

namespace corvo::faults {

namespace {

// Where a run finds the module; copied once into each sandbox.
std::string copyOf(const std::string& module) {
    const std::string name = module + ".so";
    const std::string copy = "/run/" + name;
    return test::exists(copy) ? copy : test::preloadable(CORVO_PRELOAD_FOLDER "/" + name);
}

}  // namespace

std::function<void()> preloading(const std::vector<std::string>& modules,
                                 const test::Environment& environment) {
    std::string list;
    for (const std::string& module : modules)
        list += (list.empty() ? "" : ":") + copyOf(module);
    return [list, environment] {
        ::setenv("LD_PRELOAD", list.c_str(), 1);
        for (const auto& [name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
    };
}

Outcome hurriedRun() {
    return preparedRun(preloading({"hurried_sleep"}));
}

}  // namespace corvo::faults
