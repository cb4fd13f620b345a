#include "mail/delivery/delivery_restoration.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/delivery_file.h"
#include "mail/delivery/delivery_reports.h"
#include "mail/delivery/dotqmail.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

// What keeps the file from becoming what it should be, in the order in which it is asked for.
enum class Obstacle { none, agent, lock, line, unopened, unwritten };

// The forwards among the lines, each once.
Lines forwardsAmong(const Lines& lines, std::string_view deliveryLine) {
    Lines forwards;
    std::unordered_set<std::string_view> seen;
    for (const std::string_view line : lines)
        if (isForward(line) && line != deliveryLine && seen.insert(line).second)
            forwards.push_back(line);
    return forwards;
}

bool delivers(const Lines& lines, std::string_view deliveryLine) {
    return std::any_of(lines.begin(), lines.end(), [&](std::string_view line) {
        return isKnownDeliveryLine(line) || (!line.empty() && line == deliveryLine);
    });
}

class Restoration {
public:
    Restoration(const char* path, bool shallDeliver);

    int run(std::optional<ForwardLines>& carriedOver);

private:
    std::string_view deliveryLine() const noexcept;
    std::string wantedText(const Lines& forwards) const;
    bool mayPutInPlace() const noexcept;
    bool putInPlace(const Lines& forwards);
    void stumble(Obstacle obstacle) noexcept;
    bool isWorthKeeping() const noexcept;
    int keep() noexcept;
    int report() const noexcept;
    int startAfresh();

    const char* path_;
    bool shallDeliver_;
    AgentSearch agent_ = {};
    std::optional<LineLock> lock_;
    DefaultDelivery line_ = {};
    line_rewrite::Target file_;
    DeliveryContents old_;
    bool didDeliver_ = false;
    bool didForward_ = false;
    Obstacle obstacle_ = Obstacle::none;  // the first one
    int error_ = 0;                       // what it failed with
};

// Agent, lock and line are missed in this order, and one that is missing hides the next. The line
// is also there to be known again in the old file.
Restoration::Restoration(const char* path, bool shallDeliver)
    : path_(path), shallDeliver_(shallDeliver), lock_(path), file_(path) {
    if (shallDeliver_) {
        agent_ = searchDeliveryAgent();
        line_ = readDefaultDelivery();
    }
    if (shallDeliver_ && agent_.kind == DELIVERY_AGENT_UNKNOWN)
        stumble(Obstacle::agent);
    if (!lock_->isHeld())
        stumble(Obstacle::lock);
    if (shallDeliver_ && !line_.line)
        stumble(Obstacle::line);
}

int Restoration::run(std::optional<ForwardLines>& carriedOver) {
    carriedOver.reset();
    if (!readDelivery(file_, old_))
        return startAfresh();
    const Lines lines = linesOf(old_.text);
    const Lines forwards = forwardsAmong(lines, deliveryLine());
    didDeliver_ = delivers(lines, deliveryLine());
    didForward_ = !forwards.empty();
    ForwardLines carried;
    for (const std::string_view forward : forwards)
        carried.emplace(forward);
    if (mayPutInPlace() && putInPlace(forwards))
        carriedOver = std::move(carried);
    else if (!isWorthKeeping())
        return startAfresh();
    return obstacle_ == Obstacle::none ? lock_->release() : keep();
}

std::string_view Restoration::deliveryLine() const noexcept {
    return line_.line ? std::string_view(line_.line.get()) : std::string_view();
}

std::string Restoration::wantedText(const Lines& forwards) const {
    Lines lines = {RESET_LINE};
    if (line_.line && obstacle_ == Obstacle::none)
        lines.push_back(deliveryLine());
    lines.insert(lines.end(), forwards.begin(), forwards.end());
    return textOf(lines);
}

// Without its delivery line a file is only put in place of one that has none either, and forwards.
bool Restoration::mayPutInPlace() const noexcept {
    return lock_->isHeld() && (obstacle_ == Obstacle::none || (didForward_ && !didDeliver_));
}

bool Restoration::putInPlace(const Lines& forwards) {
    const std::string text = wantedText(forwards);
    Ownership ownership = {};
    if (!findDeliveryOwnership(ownership)) {
        stumble(Obstacle::unwritten);
        return false;
    }
    if (!deliveryDifferences(old_, text, ownership).any())
        return true;
    const Replaced replaced = replaceDelivery(file_, text, ownership);
    if (replaced != Replaced::whole)
        stumble(replaced == Replaced::notOpened ? Obstacle::unopened : Obstacle::unwritten);
    return replaced == Replaced::whole;
}

// Notes an obstacle, with errno, unless there is one already.
void Restoration::stumble(Obstacle obstacle) noexcept {
    if (obstacle_ != Obstacle::none)
        return;
    obstacle_ = obstacle;
    error_ = errno;
}

bool Restoration::isWorthKeeping() const noexcept {
    return (didDeliver_ && shallDeliver_) || didForward_;
}

// Leaves the file with what it holds.
int Restoration::keep() noexcept {
    Ownership ownership = {};
    if (findDeliveryOwnership(ownership))
        (void)!safe_path::setOwnerAndMode(file_.base(), file_.name(), ownership.uid, ownership.gid,
                                          ownership.mode, nullptr);
    return report();
}

// In the words of the step that would have failed if the file had been reset.
int Restoration::report() const noexcept {
    errno = error_;
    switch (obstacle_) {
        case Obstacle::agent:
            reportMissingAgent(agent_);
            return reportNotDelivering(path_);
        case Obstacle::lock:
            if (!shallDeliver_)
                return 0;  // a reset takes no lock
            lock_->report();
            reportNotCleared(path_);
            return reportNotDelivering(path_);
        case Obstacle::line:
            reportMissingLine(line_);
            return reportNotDelivering(path_);
        case Obstacle::unopened:
            return reportUnopened(path_);
        case Obstacle::unwritten:
            return reportUnwritten(path_);
        case Obstacle::none:
            break;
    }
    return 0;
}

int Restoration::startAfresh() {
    lock_.reset();  // each step takes it for itself
    if (dotqmail_reset(path_) != 0)
        return -1;
    return shallDeliver_ ? dotqmail_add_delivery(path_) : 0;
}

// Of forwards that stand more than once, where one was added that could not be removed before.
void keepLastOfEach(Lines& lines) {
    std::unordered_set<std::string_view> seen;
    const auto isEarlier = [&](std::string_view line) {
        return isForward(line) && !seen.insert(line).second;
    };
    lines.erase(lines.begin(), std::remove_if(lines.rbegin(), lines.rend(), isEarlier).base());
}

}  // namespace

int restoreDelivery(const char* path, bool shallDeliver, std::optional<ForwardLines>& carriedOver) {
    return Restoration(path, shallDeliver).run(carriedOver);
}

bool placeForward(const char* path, const std::string& line, const ForwardLines& unnamed) {
    return changeDelivery(path, [&](Lines& lines) {
        lines.erase(std::remove(lines.begin(), lines.end(), line), lines.end());
        const auto isUnnamed = [&](std::string_view other) {
            return isForward(other) && unnamed.contains(std::string(other));
        };
        lines.insert(std::find_if(lines.begin(), lines.end(), isUnnamed), line);
    });
}

bool dropForwards(const char* path, const ForwardLines& unnamed) {
    return changeDelivery(path, [&](Lines& lines) {
        const auto isUnnamed = [&](std::string_view line) {
            return unnamed.contains(std::string(line));
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isUnnamed), lines.end());
        keepLastOfEach(lines);
    });
}

}  // namespace corvo::mail
