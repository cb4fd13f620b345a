// One mechanism of the fault campaign, or a part of it: faults MECHANISM [OPTION ...]
//
// Needs root and a private database server (tests/support/private_mariadb) whose socket
// CORVO_PANEL_SOCKET names. Exit status: 0 without violations, 1 with some, 2 when the campaign
// itself fails. script/faults runs all of them.

#include <algorithm>
#include <charconv>
#include <exception>
#include <iostream>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

#include "tests/faults/mechanisms/campaign.h"
#include "tests/support/sandbox.h"

namespace {

using corvo::faults::Mechanism;
using corvo::faults::Report;
using corvo::faults::Selection;
using corvo::faults::World;

constexpr int FAILED = 2;

const Mechanism MECHANISMS[] = {
    {"kill", "SIGKILL before and after each system call", corvo::faults::killPoints},
    {"error", "errors from each system call, once and lasting", corvo::faults::errorPoints},
    {"allocation", "an allocation that fails, once or for good", corvo::faults::allocationPoints},
    {"disk", "small, full and read-only file systems", corvo::faults::diskLimits},
    {"power", "power cuts at each flush of a run and between", corvo::faults::powerCuts},
    {"limits", "limits on file size and descriptors", corvo::faults::processLimits},
    {"database", "a database server that fails", corvo::faults::databaseFaults},
    {"contention", "locks held by others, and two runs at once", corvo::faults::contention},
    {"streams", "standard descriptors closed", corvo::faults::standardStreams},
    {"traps", "links, pipes and the like planted in the mail tree", corvo::faults::plantedTraps},
    {"races", "a process that exchanges entries with links", corvo::faults::races},
    {"rows", "hostile rows in the panel database", corvo::faults::hostileRows},
    {"deliveries", "a sound tree at each call and under each error", corvo::faults::deliveries},
    {"audit", "the auditing program, which only reads", corvo::faults::audits},
};

int usage() {
    std::cerr << "Usage: faults MECHANISM [--full] [--job I/N] [--only POINT]\n"
                 "       faults --list\n";
    for (const Mechanism& mechanism : MECHANISMS)
        std::cerr << "  " << mechanism.name << ": " << mechanism.summary << '\n';
    return FAILED;
}

int list() {
    for (const Mechanism& mechanism : MECHANISMS)
        std::cout << mechanism.name << '\n';
    return 0;
}

bool readNumber(std::string_view text, std::size_t& number) {
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    return error == std::errc() && end == text.end();
}

bool readJob(std::string_view text, Selection& selection) {
    const std::size_t slash = text.find('/');
    return slash != std::string_view::npos && readNumber(text.substr(0, slash), selection.job) &&
           readNumber(text.substr(slash + 1), selection.jobs) && selection.job < selection.jobs;
}

std::optional<Selection> readOptions(std::span<char*> arguments) {
    Selection selection;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view option = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (option == "--full")
            selection.full = true;
        else if (option == "--only" && hasValue)
            selection.only = arguments[++i];
        else if (option != "--job" || !hasValue || !readJob(arguments[++i], selection))
            return std::nullopt;
    }
    return selection;
}

int attempt(const Mechanism& mechanism, const Selection& selection) {
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        std::cerr << obstacle << '\n';
        return FAILED;
    }
    corvo::test::resetSandbox();
    World world;
    Report report(mechanism.name, selection);
    mechanism.run(world, report, selection);
    return report.finish() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::span<char*> arguments(argv, static_cast<std::size_t>(argc));
    if (argc == 2 && std::string_view(argv[1]) == "--list")
        return list();
    if (argc < 2)
        return usage();
    const auto* const mechanism =
        std::find_if(std::begin(MECHANISMS), std::end(MECHANISMS),
                     [&](const Mechanism& known) { return known.name == arguments[1]; });
    const std::optional<Selection> selection = readOptions(arguments.subspan(2));
    if (mechanism == std::end(MECHANISMS) || !selection)
        return usage();
    try {
        return attempt(*mechanism, *selection);
    } catch (const std::exception& error) {
        std::cerr << "faults " << mechanism->name << ": " << error.what() << '\n';
        return FAILED;
    }
}
