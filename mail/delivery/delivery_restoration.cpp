#include "mail/delivery/delivery_restoration.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "mail/delivery/default_delivery.h"
#include "mail/delivery/delivery_agent.h"
#include "mail/delivery/delivery_file.h"
#include "mail/delivery/delivery_lines.h"
#include "mail/delivery/delivery_reports.h"
#include "mail/delivery/dotqmail.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

// The process's or the machine's, which may be there again in a moment: no fault of the file.
bool isWantOfResources(int error) noexcept {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

class Restoration {
public:
    Restoration(const char* path, bool shallDeliver);

    int run(std::optional<ForwardLines>& carriedOver);

private:
    std::string_view deliveryLine() const noexcept;
    std::optional<std::string_view> lineToInstall() const noexcept;
    bool putInPlace(const Lines& forwards);
    void stumble(Obstacle obstacle) noexcept;
    int keep() noexcept;
    int report() const noexcept;
    int reportNotReplaced() const noexcept;
    int leaveUnread() const noexcept;
    int startAfresh();

    const char* path_;
    DeliveryCase case_ = {};
    AgentSearch agent_ = {};
    std::optional<LineLock> lock_;
    DefaultDelivery line_ = {};
    line_rewrite::Target file_;
    DeliveryContents old_;
    int error_ = 0;  // what the obstacle was met with
};

// Agent, lock and line are missed in this order, and one that is missing hides the next. The line
// is also there to be known again in the old file.
Restoration::Restoration(const char* path, bool shallDeliver)
    : path_(path), lock_(path), file_(path) {
    case_.shallDeliver = shallDeliver;
    case_.isLocked = lock_->isHeld();
    if (case_.shallDeliver) {
        agent_ = searchDeliveryAgent();
        line_ = readDefaultDelivery();
    }
    if (case_.shallDeliver && agent_.kind == DELIVERY_AGENT_UNKNOWN)
        stumble(Obstacle::agent);
    if (!case_.isLocked)
        stumble(Obstacle::lock);
    if (case_.shallDeliver && deliveryLine().empty())
        stumble(Obstacle::line);
}

int Restoration::run(std::optional<ForwardLines>& carriedOver) {
    carriedOver.reset();
    if (!readDelivery(file_, old_))
        return isWantOfResources(errno) ? leaveUnread() : startAfresh();
    const Lines lines = linesOf(old_.text);
    const Lines forwards = forwardsAmong(lines, deliveryLine());
    case_.didDeliver = delivers(lines, deliveryLine());
    case_.didForward = !forwards.empty();
    ForwardLines carried;
    for (const std::string_view forward : forwards)
        carried.emplace(forward);
    if (mayPutInPlace(case_) && putInPlace(forwards))
        carriedOver = std::move(carried);
    else if (!isWorthKeeping(case_))
        return startAfresh();
    return case_.obstacle == Obstacle::none ? lock_->release() : keep();
}

std::string_view Restoration::deliveryLine() const noexcept {
    return line_.line ? std::string_view(line_.line.get()) : std::string_view();
}

// An empty line is added like any other.
std::optional<std::string_view> Restoration::lineToInstall() const noexcept {
    const bool isReached = case_.obstacle == Obstacle::none || case_.obstacle == Obstacle::line;
    return isReached && line_.line ? std::optional(deliveryLine()) : std::nullopt;
}

bool Restoration::putInPlace(const Lines& forwards) {
    const std::string text = textOf(restoredLines(lineToInstall(), forwards));
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
    if (case_.obstacle != Obstacle::none)
        return;
    case_.obstacle = obstacle;
    error_ = errno;
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
    switch (case_.obstacle) {
        case Obstacle::agent:
            reportMissingAgent(agent_);
            return reportNotDelivering(path_);
        case Obstacle::lock:
            if (!case_.shallDeliver)
                return 0;  // a reset takes no lock
            lock_->report();
            reportNotCleared(path_);
            return reportNotDelivering(path_);
        case Obstacle::line:
            if (line_.line)
                return 0;
            reportMissingLine(line_);
            return reportNotDelivering(path_);
        case Obstacle::unopened:
        case Obstacle::unwritten:
            return reportNotReplaced();
        case Obstacle::none:
            break;
    }
    return 0;
}

// A reset alone would have written to the file itself.
int Restoration::reportNotReplaced() const noexcept {
    const bool isOpened = case_.obstacle == Obstacle::unwritten;
    if (!case_.shallDeliver)
        return isOpened ? reportUnwritten(path_) : reportUnopened(path_);
    (void)(isOpened ? reportNewUnwritten(path_) : reportNewUnopened(path_));
    (void)reportNotCleared(path_);
    return reportNotDelivering(path_);
}

// What it holds may be mail's only way.
int Restoration::leaveUnread() const noexcept {
    return reportUnopened(path_);
}

int Restoration::startAfresh() {
    lock_.reset();  // each step takes it for itself
    if (dotqmail_reset(path_) != 0)
        return -1;
    return case_.shallDeliver ? dotqmail_add_delivery(path_) : 0;
}

}  // namespace

int restoreDelivery(const char* path, bool shallDeliver, std::optional<ForwardLines>& carriedOver) {
    return Restoration(path, shallDeliver).run(carriedOver);
}

bool placeForward(const char* path, const std::string& line, const ForwardLines& unnamed) {
    return changeDelivery(path, [&](Lines& lines) { placeForwardAmong(lines, line, unnamed); });
}

bool holdForward(const char* path, const std::string& line) {
    if (changeDelivery(path, [&](Lines& lines) { putLast(lines, line); }))
        return true;
    const LineLock lock(path);
    DeliveryContents contents;
    if (!lock.isHeld() || !readDelivery(line_rewrite::Target(path), contents))
        return false;
    const Lines lines = linesOf(contents.text);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

bool dropForwards(const char* path, const ForwardLines& unnamed) {
    return changeDelivery(path, [&](Lines& lines) { dropForwardsAmong(lines, unnamed); });
}

}  // namespace corvo::mail
