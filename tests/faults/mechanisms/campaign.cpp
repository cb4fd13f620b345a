#include "tests/faults/mechanisms/campaign.h"

#include <iostream>
#include <utility>

namespace corvo::faults {

Report::Report(std::string mechanism, Selection selection)
    : mechanism_(std::move(mechanism)), selection_(std::move(selection)) {}

bool Report::wants(const std::string& point, bool inQuick) {
    if (!selection_.only.empty())
        return point == selection_.only;
    if (!selection_.full && !inQuick)
        return false;
    return next_++ % selection_.jobs == selection_.job;
}

void Report::tried(const std::string& point, const Violations& violations) {
    ++points_;
    violations_ += violations.size();
    for (const std::string& violation : violations)
        std::cout << "VIOLATION " << mechanism_ << ' ' << point << ": " << violation << '\n';
    if (!violations.empty())
        std::cout << "  repeat with: script/faults --only " << mechanism_ << ' ' << point
                  << std::endl;
}

void Report::skip(const std::string& what, const std::string& reason) const {
    std::cout << "SKIPPED " << mechanism_ << ' ' << what << ": " << reason << std::endl;
}

void Report::add(const std::string& figure, std::size_t count) {
    figures_[figure] += count;
}

std::size_t Report::finish() const {
    if (!selection_.only.empty() && points_ == 0) {
        std::cout << "faults " << mechanism_ << ": there is no point " << selection_.only << '\n';
        return 1;
    }
    std::cout << "faults " << mechanism_ << " points=" << points_ << " violations=" << violations_;
    for (const auto& [figure, count] : figures_)
        std::cout << ' ' << figure << '=' << count;
    std::cout << std::endl;
    return violations_;
}

}  // namespace corvo::faults
