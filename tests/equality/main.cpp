// Two builds of the program over generated pairs of panel and mail storage:
//
//   equality FORMER PRESENT [PAIRS [FIRST_SEED]]
//
// Needs root and a private database server (tests/support/private_mariadb) whose socket
// CORVO_PANEL_SOCKET names. Exit status: 0 when both end in the same way but for the known
// exceptions, 1 when they do not, 2 when the comparison itself fails. script/equality runs it.

#include <exception>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "tests/equality/pair.h"
#include "tests/support/sandbox.h"

namespace {

using corvo::equality::Difference;
using corvo::equality::Trial;

constexpr int FAILED = 2;

class Report {
public:
    void tried(std::uint64_t seed, const Trial& trial) {
        ++pairs_;
        ++servers_[trial.means.missing.empty() ? "with all its means" : "that lacks something"];
        std::set<std::string_view> taken;
        bool isEqual = true;
        for (const Difference& difference : corvo::equality::differences(trial)) {
            const std::string_view name = exceptionFor(difference, trial);
            if (name.empty())
                print(seed, difference, trial);
            else
                taken.insert(name);
            isEqual = isEqual && !name.empty();
        }
        for (const std::string& path : corvo::equality::filesNotKept(trial)) {
            print(seed, {path, false}, trial);
            isEqual = false;
        }
        for (const std::string_view name : taken)
            ++exceptions_[name];
        different_ += isEqual ? 0 : 1;
    }

    bool finish() const {
        for (const auto& [kind, count] : servers_)
            std::cout << count << " pairs " << kind << '\n';
        for (const std::string_view name : corvo::equality::exceptionNames()) {
            const auto found = exceptions_.find(name);
            std::cout << (found == exceptions_.end() ? 0 : found->second) << " pairs: " << name
                      << '\n';
        }
        std::cout << pairs_ << " pairs, " << different_
                  << " with a difference that is no exception\n";
        return different_ == 0;
    }

private:
    static void print(std::uint64_t seed, const Difference& difference, const Trial& trial) {
        std::cout << "DIFFERENCE of seed " << seed << " (" << trial.means.mode
                  << (trial.means.missing.empty() ? "" : ", ") << trial.means.missing
                  << "): " << describe(difference, trial) << std::endl;
    }

    std::size_t pairs_ = 0;
    std::size_t different_ = 0;
    std::map<std::string_view, std::size_t> servers_;
    std::map<std::string_view, std::size_t> exceptions_;
};

int compare(const corvo::equality::Programs& programs, std::uint64_t pairs, std::uint64_t first) {
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        std::cerr << obstacle << '\n';
        return FAILED;
    }
    corvo::test::resetSandbox();
    corvo::equality::Panel panel;
    corvo::equality::Scene scene;
    Report report;
    for (std::uint64_t seed = first; seed < first + pairs; ++seed)
        report.tried(seed, attempt(seed, programs, panel, scene));
    return report.finish() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 5) {
        std::cerr << "Usage: equality FORMER PRESENT [PAIRS [FIRST_SEED]]\n";
        return FAILED;
    }
    try {
        const std::uint64_t pairs = argc > 3 ? std::stoull(argv[3]) : 500;
        const std::uint64_t first = argc > 4 ? std::stoull(argv[4]) : 1;
        return compare({argv[1], argv[2]}, pairs, first);
    } catch (const std::exception& error) {
        std::cerr << "equality: " << error.what() << '\n';
        return FAILED;
    }
}
