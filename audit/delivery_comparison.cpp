#include "audit/delivery_comparison.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "audit/tree_look.h"
#include "mail/delivery/delivery_lines.h"

namespace corvo::audit {

namespace {

using mail::Lines;

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
        if (means.hasDeliveryLine())
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

}  // namespace

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

}  // namespace corvo::audit
