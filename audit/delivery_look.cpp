#include "audit/delivery_look.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "audit/delivery_comparison.h"
#include "audit/tree_look.h"
#include "utils/file_lock.h"
#include "utils/line_rewrite.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

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

// Whether a run, which gives the home to popuser first, then refuses a file with further names that
// is trusted in a home of root's.
bool willBeRefused(const Item& about, const mail::DeliveryContents& contents, const Means& means) {
    const std::string home = std::filesystem::path(about.path).parent_path();
    struct stat parent = {};
    return contents.exists && contents.seen.st_nlink > 1 &&
           contents.seen.st_uid != means.delivery.uid &&
           safe_path::status(AT_FDCWD, home.c_str(), parent) == 0 &&
           parent.st_uid != means.home.uid;
}

mail::Differences ownershipDifferences(const mail::DeliveryContents& contents,
                                       const mail::Ownership& wanted) {
    mail::Differences differences = mail::deliveryDifferences(contents, contents.text, wanted);
    differences.missing = false;
    return differences;
}

}  // namespace

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
    if (willBeRefused(about, contents, means))
        return addUnreadable(items, about, EPERM);
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
