#include "audit/tree_look.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "mail/home/skeleton.h"
#include "utils/accounts.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using mail::Ownership;
using mail::SkeletonEntry;
using State = FoundDirectory::State;

FoundDirectory blocked(std::string reason) {
    FoundDirectory found;
    found.state = State::blocked;
    found.reason = std::move(reason);
    return found;
}

// Whether something of this name is there, be it a link that leads nowhere.
bool isNamed(int base, const std::string& path) {
    struct stat seen = {};
    return safe_path::status(base, path.c_str(), seen, safe_path::LastLink::keep) == 0;
}

// Nothing could be opened. A run makes what is missing, with its parents, but not what a link leads
// to that leads nowhere: neither here nor on the way.
FoundDirectory missingOrDangling(int base, std::string path) {
    while (!path.empty() && !safe_path::openDirectory(base, path.c_str()) && errno == ENOENT) {
        if (isNamed(base, path))
            return blocked("is a link that leads nowhere, or lies behind one");
        path.resize(path.find('/') == std::string::npos ? 0 : path.rfind('/'));
    }
    FoundDirectory found;
    found.state = State::missing;
    return found;
}

// Not opened for some other reason. What is closed to who looks may still be seen from outside.
FoundDirectory unseenOrClosed(int base, const char* path, int error, const Ownership& wanted) {
    FoundDirectory found;
    found.error = error;
    found.reason = std::strerror(error);
    if (isWantOfRights(error) && safe_path::status(base, path, found.seen) == 0) {
        found.state = State::closed;
        found.differences = mail::directoryDifferences(found.seen, wanted);
    }
    return found;
}

FoundDirectory notOpened(int base, const char* path, int error, const Ownership& wanted) {
    switch (error) {
        case ENOENT:
            return missingOrDangling(base, path);
        case ENOTDIR:
            return blocked("is no directory");
        case ELOOP:
            return blocked("is a link that is refused");
        case ENAMETOOLONG:
            return blocked("has too long a name");
        default:
            return unseenOrClosed(base, path, error, wanted);
    }
}

std::string nameOfGroup(gid_t gid) {
    const struct group* const found = ::getgrgid(gid);
    return found != nullptr ? found->gr_name : std::to_string(gid);
}

std::string modeText(mode_t mode) {
    return fmt::format("{:04o}", mode & 07777U);
}

void add(Items& items, const Item& about, const char* reason, std::string expected,
         std::string found) {
    Item item = about;
    item.reason = reason;
    item.expected = std::move(expected);
    item.found = std::move(found);
    items.push_back(std::move(item));
}

// The skeleton of one home, entry by entry.
class SkeletonLook {
public:
    SkeletonLook(Items& items, const Item& about, int home, const Ownership& wanted)
        : items_(items), about_(about), home_(home), wanted_(wanted) {}

    HomeAfterwards run() {
        for (const SkeletonEntry& entry : mail::SKELETON)
            lookAt(entry);
        return {.isWhole = isReached_, .hasMaildir = hasMaildir_ && hasTmp_};
    }

private:
    // What an entry's parent is like.
    enum class Parent { there, missing, closed, shut };

    void lookAt(const SkeletonEntry& entry) {
        Parent& parent = levels_.at(entry.depth);
        Parent& level = levels_.at(entry.depth + 1);
        if (parent == Parent::closed)
            parent = tellOfClosed(std::filesystem::path(entry.path).parent_path());
        if (parent != Parent::there) {
            level = parent;
            return;
        }
        level = Parent::there;
        const mail::Differences seen = mail::directoryDifferences(home_, entry.path, wanted_);
        if (seen.any())
            level = lookCloser(entry);
        if (level == Parent::shut)
            stop(entry);
    }

    // A directory that differs, or a link to one, or something else.
    Parent lookCloser(const SkeletonEntry& entry) {
        const FoundDirectory found = findDirectory(home_, entry.path, wanted_);
        const Item about = itemFor(entry.path);
        switch (found.state) {
            case State::there:
                addOwnershipItems(items_, about, found.differences, found.seen, wanted_);
                return Parent::there;
            case State::missing:
                items_.push_back(about);
                items_.back().reason = "is missing";
                return Parent::missing;
            case State::closed:
                closedBy_ = found.error;
                addOwnershipItems(items_, about, found.differences, found.seen, wanted_);
                return Parent::closed;
            case State::unseen:
                if (!isWantOfRights(found.error))
                    break;
                items_.push_back(hidden(about, found.error, "it was"));
                return Parent::missing;
            case State::blocked:
                break;
        }
        items_.push_back(about);
        items_.back().reason = found.reason;
        items_.back().repair = Repair::none;
        return Parent::shut;
    }

    // Once for all that is in it, which is then passed over like what is in a missing one.
    Parent tellOfClosed(const std::string& path) {
        items_.push_back(hidden(itemFor(path), closedBy_, "what is in it was"));
        return Parent::missing;
    }

    Item itemFor(const std::string& path) const {
        Item item = about_;
        item.kind = ItemKind::directory;
        item.path += "/" + path;
        item.repair = isReached_ ? Repair::all : Repair::none;
        return item;
    }

    // A run's stage ends at an entry that it does not get past.
    void stop(const SkeletonEntry& entry) {
        isReached_ = false;
        if (std::string_view(entry.path) == "Maildir")
            hasMaildir_ = false;
        if (std::string_view(entry.path) == "Maildir/tmp")
            hasTmp_ = false;
    }

    Items& items_;
    const Item& about_;
    int home_;
    const Ownership& wanted_;
    std::array<Parent, mail::SKELETON_LEVELS + 1> levels_ = {};
    int closedBy_ = 0;  // an errno
    bool isReached_ = true;
    bool hasMaildir_ = true;
    bool hasTmp_ = true;
};

}  // namespace

FoundDirectory findDirectory(int base, const char* path, const Ownership& wanted) {
    FoundDirectory found;
    found.directory = safe_path::openDirectory(base, path);
    if (!found.directory || ::fstat(found.directory.get(), &found.seen) != 0)
        return notOpened(base, path, errno, wanted);
    found.state = State::there;
    found.differences = mail::directoryDifferences(found.directory.get(), "", wanted);
    return found;
}

void addOwnershipItems(Items& items, const Item& about, const mail::Differences& differences,
                       const struct stat& seen, const Ownership& wanted) {
    if (differences.owner)
        add(items, about, "has another owner", get_user_name(wanted.uid),
            get_user_name(seen.st_uid));
    if (differences.group)
        add(items, about, "has another group", nameOfGroup(wanted.gid), nameOfGroup(seen.st_gid));
    if (differences.mode)
        add(items, about, "has another mode", modeText(wanted.mode), modeText(seen.st_mode));
    if (differences.names)
        add(items, about, "has further names", "1", std::to_string(seen.st_nlink));
}

HomeAfterwards lookAtSkeleton(Items& items, const Item& about, int home, const Ownership& wanted) {
    return SkeletonLook(items, about, home, wanted).run();
}

}  // namespace corvo::audit
