#include "audit/delivery_run.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "mail/delivery/delivery_lines.h"

namespace corvo::audit {

namespace {

using mail::DeliveryCase;
using mail::ForwardLines;
using mail::Lines;
using mail::Obstacle;

constexpr std::size_t LARGEST = mail::LARGEST_DELIVERY_FILE;

// A run as far as it concerns one delivery file.
class RunOnFile {
public:
    RunOnFile(const DeliveryState& found, const DeliveryWish& wish, const Means& means)
        : state_(found), wish_(wish), means_(means) {}

    DeliveryState run(bool isRestored) {
        if (isRestored)
            restore();
        if (means_.hasLocks && !state_.isTooLong)
            placeForwards();
        return state_;
    }

private:
    Obstacle obstacle() const {
        if (wish_.delivers && !means_.hasAgent)
            return Obstacle::agent;
        if (!means_.hasLocks)
            return Obstacle::lock;
        return wish_.delivers && !means_.hasDeliveryLine() ? Obstacle::line : Obstacle::none;
    }

    std::string_view deliveryLine() const {
        return wish_.delivers && means_.deliveryLine ? std::string_view(*means_.deliveryLine)
                                                     : std::string_view();
    }

    void restore() {
        const Lines forwards = mail::forwardsAmong(state_.lines, deliveryLine());
        const DeliveryCase file = {.shallDeliver = wish_.delivers,
                                   .didDeliver = mail::delivers(state_.lines, deliveryLine()),
                                   .didForward = !forwards.empty(),
                                   .obstacle = obstacle(),
                                   .isLocked = means_.hasLocks};
        if (!state_.isTooLong && mail::mayPutInPlace(file))
            putInPlace(forwards);
        else if (!state_.isTooLong && mail::isWorthKeeping(file))
            keepWithOwnerAndMode();
        else
            startAfresh();
    }

    void putInPlace(const Lines& forwards) {
        carriedOver_.emplace();
        for (const std::string_view forward : forwards)
            carriedOver_->emplace(forward);
        replaceBy(mail::restoredLines(lineToInstall(), forwards));
    }

    // An empty line is added like any other.
    std::optional<std::string_view> lineToInstall() const {
        const bool isReached = obstacle() == Obstacle::none || obstacle() == Obstacle::line;
        return wish_.delivers && isReached && means_.deliveryLine ? std::optional(deliveryLine())
                                                                  : std::nullopt;
    }

    void replaceBy(Lines lines) {
        state_.exists = true;
        state_.isTooLong = mail::textOf(lines).size() > LARGEST;
        state_.isUnended = false;
        state_.lines = std::move(lines);
        state_.differences = {};
    }

    void keepWithOwnerAndMode() { state_.differences = {.names = state_.differences.names}; }

    // The file is emptied, not replaced, and only then gets its delivery line: another file takes
    // its place even where there turns out to be no such line.
    void startAfresh() {
        const bool isReplaced =
            wish_.delivers && (obstacle() == Obstacle::none || obstacle() == Obstacle::line);
        const bool keepsNames = state_.differences.names && !isReplaced;
        replaceBy(mail::restoredLines(lineToInstall(), {}));
        state_.differences.names = keepsNames;
    }

    // A file that becomes too long on the way stays so: a run can neither place nor drop more.
    void placeForwards() {
        if (isOutgrown()) {
            state_.exists = true;
            state_.isTooLong = true;
            return;
        }
        if (carriedOver_)
            mail::dropForwardsAmong(state_.lines, *carriedOver_);
        if (wish_.forwards.empty())
            return;
        mail::putLast(state_.lines, Lines(wish_.forwards.begin(), wish_.forwards.end()));
        replaceBy(std::move(state_.lines));
    }

    // Whether the file is too long with one forward after the other, and none dropped yet.
    bool isOutgrown() const {
        std::unordered_map<std::string_view, std::size_t> sizes;  // of all lines that are alike
        std::size_t size = 0;
        for (const std::string_view line : state_.lines) {
            sizes[line] += line.size() + 1;
            size += line.size() + 1;
        }
        return std::any_of(
            wish_.forwards.begin(), wish_.forwards.end(), [&](const std::string& forward) {
                const std::size_t old = std::exchange(sizes[forward], forward.size() + 1);
                size += forward.size() + 1 - old;
                return size > LARGEST;
            });
    }

    DeliveryState state_;
    const DeliveryWish& wish_;
    const Means& means_;
    std::optional<ForwardLines> carriedOver_;
};

}  // namespace

DeliveryState stateAfterRun(const DeliveryState& found, const DeliveryWish& wish,
                            const Means& means, bool isRestored) {
    return RunOnFile(found, wish, means).run(isRestored);
}

}  // namespace corvo::audit
