// The audit beside the run that it foretells, over generated servers:
//
//   agreement [OBJECTS [FIRST_SEED]]     until so many damaged objects have been met
//   agreement --only SEED                this one, with all that was said
//
// Needs root and a private database server (tests/support/private_mariadb) whose socket
// CORVO_PANEL_SOCKET names. Exit status: 0 when they agree, 1 when they do not, 2 when the
// comparison itself fails. script/agreement runs it.

#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>

#include "tests/agreement/campaign.h"
#include "tests/support/sandbox.h"

namespace {

using corvo::agreement::Campaign;
using corvo::agreement::Result;

constexpr int FAILED = 2;
constexpr std::size_t OBJECTS = 2000;

class Report {
public:
    void tried(std::uint64_t seed, const Result& result) {
        ++servers_;
        objects_ += result.objects;
        lacking_ += result.missing.empty() ? 0 : 1;
        inOrder_ += result.wasInOrder ? 1 : 0;
        violations_ += result.violations.size();
        for (const std::string& violation : result.violations)
            std::cout << "VIOLATION of seed " << seed
                      << (result.missing.empty() ? "" : " (" + result.missing + ")") << ": "
                      << violation << std::endl;
    }

    std::size_t objects() const { return objects_; }

    bool finish() const {
        std::cout << objects_ << " damaged objects on " << servers_ << " servers, " << lacking_
                  << " of which lack something; " << inOrder_ << " looked at in order, too; "
                  << violations_ << " violations\n";
        return violations_ == 0;
    }

private:
    std::size_t servers_ = 0;
    std::size_t objects_ = 0;
    std::size_t lacking_ = 0;
    std::size_t inOrder_ = 0;
    std::size_t violations_ = 0;
};

// Makes `compare` over generated servers in a sandbox.
int inSandbox(const std::function<void(Campaign& campaign, Report& report)>& compare) {
    const std::string obstacle = corvo::test::enterSandbox();
    if (!obstacle.empty()) {
        std::cerr << obstacle << '\n';
        return FAILED;
    }
    corvo::test::resetSandbox();
    Campaign campaign;
    Report report;
    compare(campaign, report);
    return report.finish() ? 0 : 1;
}

int compareOne(std::uint64_t seed) {
    return inSandbox([=](Campaign& campaign, Report& report) {
        const Result result = campaign.attempt(seed);
        std::cout << result.account;
        report.tried(seed, result);
    });
}

int compareMany(std::size_t objects, std::uint64_t first) {
    return inSandbox([=](Campaign& campaign, Report& report) {
        for (std::uint64_t seed = first; report.objects() < objects; ++seed)
            report.tried(seed, campaign.attempt(seed));
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3) {
        std::cerr << "Usage: agreement [OBJECTS [FIRST_SEED]]\n"
                     "       agreement --only SEED\n";
        return FAILED;
    }
    try {
        if (argc == 3 && std::string_view(argv[1]) == "--only")
            return compareOne(std::stoull(argv[2]));
        return compareMany(argc > 1 ? std::stoull(argv[1]) : OBJECTS,
                           argc > 2 ? std::stoull(argv[2]) : 1);
    } catch (const std::exception& error) {
        std::cerr << "agreement: " << error.what() << '\n';
        return FAILED;
    }
}
