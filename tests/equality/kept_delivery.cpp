#include "tests/equality/kept_delivery.h"

#include <algorithm>
#include <vector>

#include "mail/delivery/delivery_file.h"
#include "mail/delivery/dotqmail.h"

namespace corvo::equality {

namespace {

using Texts = std::vector<std::string>;

const std::string DISCARDING = "| true";

// A delivery file on its way through the rows of one home.
class KeptDelivery {
public:
    KeptDelivery(std::string text, const Means& means) : text_(std::move(text)), means_(means) {}

    void restore(const Mailname& name) {
        restoreFile(name.delivers());
        if (name.isGroup && means_.hasForwardTable && means_.hasLockFolder)
            for (const std::string& address : name.forwards)
                if (!addForward(address))
                    break;
        if (!carriedOver_.empty())
            dropCarriedOver();
    }

    bool isKept() const { return isKept_; }
    const std::string& text() const { return text_; }

private:
    Texts lines() const {
        Texts lines;
        for (const std::string_view line : mail::linesOf(text_))
            lines.emplace_back(line);
        return lines;
    }

    void set(const Texts& lines) {
        text_.clear();
        for (const std::string& line : lines)
            text_ += line + "\n";
    }

    // What looks like a forward may be the line by which the mailbox delivers.
    Texts forwards(bool shallDeliver) const {
        Texts forwards;
        for (const std::string& line : lines())
            if (line.starts_with('&') && !(shallDeliver && line == means_.line) &&
                std::find(forwards.begin(), forwards.end(), line) == forwards.end())
                forwards.push_back(line);
        return forwards;
    }

    bool delivers() const {
        const Texts all = lines();
        return std::any_of(all.begin(), all.end(), [this](const std::string& line) {
            return mail::isKnownDeliveryLine(line) ||
                   (hasLine() ? line == *means_.line : mayBeTheDefault(line));
        });
    }

    static bool mayBeTheDefault(const std::string& line) {
        return line != DISCARDING && line.find_first_of("|/.") == 0;
    }

    // An empty one is added like any other, and delivers nothing.
    bool hasLine() const { return means_.line && !means_.line->empty(); }

    void restoreFile(bool shallDeliver) {
        carriedOver_.clear();
        const bool canDeliver = means_.hasAgent && hasLine();
        const bool isStuck = !means_.hasLockFolder || (shallDeliver && !canDeliver);
        const bool stays = (shallDeliver && delivers()) ||
                           (!means_.hasLockFolder && !forwards(shallDeliver).empty());
        if (isStuck && stays) {
            isKept_ = true;
            return;
        }
        if (means_.hasLockFolder)
            carriedOver_ = forwards(shallDeliver);
        Texts fresh = {DISCARDING};
        if (shallDeliver && means_.hasLockFolder && means_.hasAgent && means_.line)
            fresh.push_back(*means_.line);
        fresh.insert(fresh.end(), carriedOver_.begin(), carriedOver_.end());
        set(fresh);
    }

    // False where the rest of the group is not come to.
    bool addForward(const std::string& address) {
        const std::string line = mail::forwardLine(address);
        if (line.empty())
            return false;
        Texts all = lines();
        std::erase(all, line);
        std::erase(carriedOver_, line);
        all.insert(all.end() - static_cast<std::ptrdiff_t>(carriedOver_.size()), line);
        set(all);
        return true;
    }

    void dropCarriedOver() {
        Texts all = lines();
        all.resize(all.size() - carriedOver_.size());
        set(all);
    }

    std::string text_;
    const Means& means_;
    Texts carriedOver_;  // at the end of the text, and not named so far
    bool isKept_ = false;
};

}  // namespace

std::optional<std::string> keptDelivery(const std::string& before, const std::string& home,
                                        const Description& description, const Means& means) {
    if (before.size() > static_cast<std::size_t>(mail::LARGEST_DELIVERY_FILE))
        return std::nullopt;
    KeptDelivery delivery(before, means);
    for (const Mailname& name : description.mailnames)
        if (name.home() == home)
            delivery.restore(name);
    if (!delivery.isKept())
        return std::nullopt;
    return delivery.text();
}

}  // namespace corvo::equality
