#include "audit/delivery_look.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "audit/tree_look.h"
#include "mail/delivery/delivery_lines.h"
#include "utils/file_lock.h"
#include "utils/line_rewrite.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using mail::DeliveryCase;
using mail::ForwardLines;
using mail::Lines;
using mail::Obstacle;

constexpr std::size_t LARGEST = mail::LARGEST_DELIVERY_FILE;

// An empty one is none.
bool hasDeliveryLine(const Means& means) {
    return means.deliveryLine && !means.deliveryLine->empty();
}

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
        return wish_.delivers && !hasDeliveryLine(means_) ? Obstacle::line : Obstacle::none;
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

// The lines of a file, compared with what the panel says.
class LineComparison {
public:
    LineComparison(Items& items, const Item& about, const DeliveryState& state,
                   const DeliveryWish& wish, const Means& means)
        : items_(items),
          about_(about),
          lines_(state.lines),
          isUnended_(state.isUnended),
          present_(lines_.begin(), lines_.end()),
          wish_(wish),
          wished_(wish.forwards.begin(), wish.forwards.end()),
          unreached_(wish.unreached.begin(), wish.unreached.end()),
          deliveryLine_(deliveryLineOf(means)) {
        wished_.insert(mail::RESET_LINE);
    }

    void run() {
        const std::size_t before = items_.size();
        compareDelivery();
        compareForwards();
        compareOthers();
        if (items_.size() == before && linesInOrder() != wanted())
            add(ItemKind::lineOrder, "has its lines in another order, or more than once");
        if (isUnended_)
            add(ItemKind::lineOrder, "has no line end after its last line");
        compareUnreachable();
    }

private:
    // Where there is no default one, the first that may have been it serves.
    std::string_view deliveryLineOf(const Means& means) const {
        if (hasDeliveryLine(means))
            return *means.deliveryLine;
        const auto there = std::find_if(lines_.begin(), lines_.end(), mail::mayDeliver);
        return there == lines_.end() ? std::string_view() : *there;
    }

    void compareDelivery() {
        if (!wish_.delivers) {
            for (const std::string_view line : present_)
                if (delivers(line))
                    add(ItemKind::delivery, "delivers though the panel says that it shall not", {},
                        line);
            return;
        }
        if (!deliveryLine_.empty() && present_.contains(deliveryLine_))
            return;
        const auto known = std::find_if(lines_.begin(), lines_.end(), mail::isKnownDeliveryLine);
        if (known != lines_.end())
            add(ItemKind::delivery, "delivers by an old line", deliveryLine_, *known);
        else
            add(ItemKind::delivery, "discards though the panel says that it shall deliver",
                deliveryLine_);
    }

    void compareForwards() {
        for (const std::string_view line : forwards())
            if (!present_.contains(line))
                add(ItemKind::forward, "has a forward missing", line);
    }

    // What is left: the first line, and lines that nobody asked for.
    void compareOthers() {
        if (!present_.contains(mail::RESET_LINE))
            add(ItemKind::lineOrder, "has its first line missing", mail::RESET_LINE);
        std::unordered_set<std::string_view> known;
        for (const std::string_view line : lines_)
            if (!isNamed(line) && !delivers(line) && known.insert(line).second)
                add(ItemKind::surplusLine, reasonAgainst(line), {}, line);
    }

    const char* reasonAgainst(std::string_view line) const {
        return wish_.isReadWhole || !mail::isForward(line)
                   ? "has a line that the panel does not ask for"
                   : "has a forward that the panel, as far as it was read, does not ask for";
    }

    // What no run puts into the file.
    void compareUnreachable() {
        std::unordered_set<std::string_view> told;
        for (const std::string& text : wish_.noAddresses)
            if (told.insert(text).second) {
                add(ItemKind::forward, "cannot forward to what is no address");
                items_.back().expected = text;
            }
        for (const std::string_view line : wish_.unreached)
            if (!present_.contains(line) && !wished_.contains(line) && told.insert(line).second)
                add(ItemKind::forward, "gets no forward behind one that is to no address", line);
    }

    bool isNamed(std::string_view line) const {
        return wished_.contains(line) || unreached_.contains(line);
    }

    // By a line that stands there for no other reason.
    bool delivers(std::string_view line) const {
        if (isNamed(line))
            return false;
        return mail::isKnownDeliveryLine(line) || (!line.empty() && line == deliveryLine_);
    }

    Lines forwards() const {
        return mail::lastOfEach(Lines(wish_.forwards.begin(), wish_.forwards.end()));
    }

    // A forward that a run does not come to may stand anywhere.
    Lines linesInOrder() const {
        Lines lines = lines_;
        std::erase_if(lines, [&](std::string_view line) {
            return unreached_.contains(line) && !wished_.contains(line) && line != deliveryLine_;
        });
        return lines;
    }

    // A forward that is the delivery line, too, stands where it is named.
    Lines wanted() const {
        const bool isForward = deliveryLine_ != mail::RESET_LINE && wished_.contains(deliveryLine_);
        const bool isOfItsOwn = wish_.delivers && !isForward && !deliveryLine_.empty();
        return mail::restoredLines(isOfItsOwn ? std::optional(deliveryLine_) : std::nullopt,
                                   forwards());
    }

    void add(ItemKind kind, const char* reason, std::string_view expected = {},
             std::optional<std::string_view> found = std::nullopt) {
        Item item = about_;
        item.kind = kind;
        item.reason = reason;
        if (!expected.empty())
            item.expected = expected;
        if (found)
            item.found = *found;
        items_.push_back(std::move(item));
    }

    Items& items_;
    const Item& about_;
    const Lines& lines_;
    bool isUnended_;
    std::unordered_set<std::string_view> present_;
    const DeliveryWish& wish_;
    std::unordered_set<std::string_view> wished_;  // and the first line
    std::unordered_set<std::string_view> unreached_;
    std::string_view deliveryLine_;
};

// An item as far as several of one file differ.
struct SameItem {
    std::size_t operator()(const Item* item) const {
        const std::hash<std::optional<std::string_view>> hash;
        return hash(item->expected) * 31 + hash(item->found);
    }
    bool operator()(const Item* one, const Item* other) const {
        return one->kind == other->kind && one->reason == other->reason &&
               one->expected == other->expected && one->found == other->found;
    }
};

// Finds items that stay where they are.
class ItemSet {
public:
    explicit ItemSet(const Items& items) {
        for (const Item& item : items)
            items_.insert(&item);
    }

    bool contains(const Item& item) const { return items_.contains(&item); }

private:
    std::unordered_set<const Item*, SameItem, SameItem> items_;
};

// Tells of each item whether it is gone where only `left` are, and adds those that then show.
void judgeRepairs(Items& items, const Items& left) {
    const ItemSet afterwards(left);
    for (Item& item : items)
        item.repair = afterwards.contains(item) ? Repair::none : Repair::all;
    const ItemSet before(items);
    Items fresh;
    std::copy_if(left.begin(), left.end(), std::back_inserter(fresh),
                 [&](const Item& item) { return !before.contains(item); });
    for (Item& item : fresh) {
        item.repair = Repair::none;
        items.push_back(std::move(item));
    }
}

// A file at which a run fails: nothing in it can be compared.
void addUnreadable(Items& items, const Item& about, int error) {
    Item item = about;
    item.kind = ItemKind::deliveryFile;
    item.reason = error == ELOOP    ? "is a link that is refused"
                  : error == EPERM  ? "is a hard link that is refused"
                  : error == EINVAL ? "is no regular file"
                                    : std::strerror(error);
    item.repair = Repair::none;
    items.push_back(std::move(item));
}

// Whether the lock that a run takes can be had: what lies there must be a file, or nothing, or what
// only root may see.
bool isLockable(const std::string& path) {
    const UniqueCString lock(mk_flock_path(path.c_str()));
    struct stat seen = {};
    if (!lock || safe_path::status(AT_FDCWD, lock.get(), seen) == 0)
        return lock && S_ISREG(seen.st_mode);
    return errno == ENOENT || isWantOfRights(errno);
}

// The means as a run has them at this file.
Means meansAt(const std::string& path, const Means& means) {
    Means here = means;
    here.hasLocks = here.hasLocks && isLockable(path);
    return here;
}

// Forwards that the panel names and a run takes away, since it does not come to them.
void addLostForwards(Items& items, const Item& about, const DeliveryWish& wish,
                     const DeliveryState& before, const DeliveryState& after) {
    std::unordered_set<std::string_view> there(before.lines.begin(), before.lines.end());
    for (const std::string_view line : after.lines)
        there.erase(line);
    for (const std::string& line : wish.unreached)
        if (there.erase(line) > 0) {
            Item item = about;
            item.kind = ItemKind::surplusLine;
            item.reason = "has a forward that a run removes: one before it is to no address";
            item.found = line;
            item.repair = Repair::all;
            items.push_back(std::move(item));
        }
}

// What who looks may not read is seen from outside alone.
void lookFromOutside(Items& items, const Item& about, const DeliveryWish& wish, const Means& means,
                     bool isRestored) {
    Item file = about;
    file.kind = ItemKind::deliveryFile;
    struct stat seen = {};
    const bool isSeen = safe_path::status(AT_FDCWD, about.path.c_str(), seen) == 0;
    if (isSeen && !S_ISREG(seen.st_mode))
        return addUnreadable(items, about, EINVAL);
    if (isSeen && seen.st_nlink == 1) {
        DeliveryState found;
        found.exists = true;
        found.differences = mail::fileDifferences(seen, means.delivery);
        Items differing;
        Items left;
        addOwnershipItems(differing, file, found.differences, seen, means.delivery);
        found = stateAfterRun(found, wish, means, isRestored);
        addOwnershipItems(left, file, found.differences, seen, means.delivery);
        judgeRepairs(differing, left);
        items.insert(items.end(), differing.begin(), differing.end());
    }
    items.push_back(hidden(file, EACCES, "its lines were"));
}

mail::Differences ownershipDifferences(const mail::DeliveryContents& contents,
                                       const mail::Ownership& wanted) {
    mail::Differences differences = mail::deliveryDifferences(contents, contents.text, wanted);
    differences.missing = false;
    return differences;
}

}  // namespace

DeliveryState stateAfterRun(const DeliveryState& found, const DeliveryWish& wish,
                            const Means& means, bool isRestored) {
    return RunOnFile(found, wish, means).run(isRestored);
}

void addDeliveryItems(Items& items, const Item& about, const DeliveryState& state,
                      const struct stat& seen, const DeliveryWish& wish, const Means& means) {
    Item file = about;
    file.kind = ItemKind::deliveryFile;
    if (!state.exists || state.isTooLong) {
        file.reason = state.exists ? "is longer than 1 MiB" : "is missing";
        items.push_back(std::move(file));
        return;
    }
    addOwnershipItems(items, file, state.differences, seen, means.delivery);
    LineComparison(items, about, state, wish, means).run();
}

void lookAtDelivery(Items& items, const Item& about, const DeliveryWish& wish, const Means& means,
                    bool isRestored) {
    mail::DeliveryContents contents;
    const bool isRead = mail::readDelivery(line_rewrite::Target(about.path.c_str()), contents);
    const int error = errno;
    const bool isTooLong = !isRead && error == EFBIG;
    if (!isRead && error == EACCES)
        return lookFromOutside(items, about, wish, means, isRestored);
    if (!isRead && !isTooLong)
        return addUnreadable(items, about, error);
    DeliveryState found = {.exists = contents.exists,
                           .isTooLong = isTooLong,
                           .isUnended = !contents.text.empty() && contents.text.back() != '\n',
                           .lines = {},
                           .differences = ownershipDifferences(contents, means.delivery)};
    if (!isTooLong)
        found.lines = mail::linesOf(contents.text);
    Items differing;
    addDeliveryItems(differing, about, found, contents.seen, wish, means);
    if (differing.empty())
        return;
    const Means here = meansAt(about.path, means);
    const DeliveryState after = stateAfterRun(found, wish, here, isRestored);
    Items left;
    addDeliveryItems(left, about, after, contents.seen, wish, means);
    judgeRepairs(differing, left);
    addLostForwards(differing, about, wish, found, after);
    items.insert(items.end(), std::make_move_iterator(differing.begin()),
                 std::make_move_iterator(differing.end()));
}

void lookAtDeliveryToCome(Items& items, const Item& about, const DeliveryWish& wish,
                          const Means& means) {
    const Means here = meansAt(about.path, means);
    const DeliveryState after = stateAfterRun({}, wish, here, /*isRestored=*/true);
    Items left;
    addDeliveryItems(left, about, after, {}, wish, means);
    for (Item& item : left) {
        item.repair = Repair::none;
        items.push_back(std::move(item));
    }
}

}  // namespace corvo::audit
