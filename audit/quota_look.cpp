#include "audit/quota_look.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "audit/tree_look.h"
#include "mail/quota/maildir_scan.h"
#include "mail/quota/maildirsize.h"
#include "mail/quota/maildirsize_file.h"
#include "utils/directories.h"
#include "utils/files.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using mail::MaildirsizeLimits;
using mail::MaildirUsage;

const std::string FILE_PATH = std::string("Maildir/") + mail::MAILDIRSIZE;

// What the file says; nothing where it is damaged.
struct Contents {
    MaildirsizeLimits limits = {};
    long long bytes = 0;
    long long messages = 0;
};

std::optional<Contents> parse(std::string_view text) {
    const std::size_t header = text.find('\n');
    Contents contents;
    if (header == std::string_view::npos ||
        !parse_header_string(text.substr(0, header), &contents.limits.bytes,
                             &contents.limits.messages) ||
        !parse_usage_lines(text.substr(header + 1), &contents.bytes, &contents.messages))
        return std::nullopt;
    return contents;
}

std::string textOf(const MaildirsizeLimits& limits) {
    return fmt::format("{}S,{}C", limits.bytes, limits.messages);
}

std::string usageText(long long bytes, long long messages) {
    return fmt::format("{} {}", bytes, messages);
}

// Counts the Maildir in an open home; nothing, with errno, where that fails.
std::optional<MaildirUsage> countIn(int home) {
    const UniqueFd maildir = safe_path::openDirectory(home, "Maildir");
    MaildirUsage usage = {};
    if (!maildir || ::fchdir(maildir.get()) != 0 || mail::countMaildir(usage) == 0)
        return std::nullopt;
    return usage;
}

// A delivery agent that counts anew may leave out what lies in the trash. The working directory is
// the Maildir.
bool isUsageOfAgent(const Contents& contents, const MaildirUsage& all) {
    MaildirUsage trash = {};
    return mail::countFolder(".Trash", trash) != 0 && contents.bytes == all.bytes - trash.bytes &&
           contents.messages == all.messages - trash.messages;
}

class MaildirsizeLook {
public:
    MaildirsizeLook(Items& items, const Item& about, int home, const Means& means)
        : items_(items), about_(about), home_(home), means_(means) {
        about_.kind = ItemKind::maildirsize;
        about_.path += "/" + FILE_PATH;
    }

    QuotaStage run(long long quota, bool recount, bool canWrite) {
        const std::size_t before = items_.size();
        const std::optional<MaildirsizeLimits> limits = limitsBeside(quota);
        if (const UniqueFd file = isBlocked_ ? UniqueFd() : open())
            compare(file.get(), limits, recount);
        // What is right is not written, and needs no place for another.
        const bool isRight = items_.size() == before;
        const bool goesOn = !isBlocked_ && (canWrite || isRight);
        for (std::size_t i = before; i < items_.size(); ++i)
            items_[i].repair = goesOn ? Repair::all : Repair::none;
        return goesOn ? QuotaStage::goesOn : QuotaStage::fails;
    }

private:
    // The limits that the header should have; nothing, once that is told, where the attachments
    // cannot be counted.
    std::optional<MaildirsizeLimits> limitsBeside(long long quota) {
        struct stat seen = {};
        const bool counts = quota >= 0 && safe_path::status(home_, mail::ATTACHMENTS, seen) == 0 &&
                            S_ISDIR(seen.st_mode);
        if (!counts)
            return mail::limitsOfQuota(quota);
        const long long size = ::fchdir(home_) == 0 ? get_dir_size(mail::ATTACHMENTS) : -1;
        if (size < 0) {
            meet(errno, "is not written: the attachments cannot be counted", "the limits were");
            return std::nullopt;
        }
        return mail::limitsOfQuota(mail::quotaBeside(size, quota));
    }

    // The file, if it can be compared.
    UniqueFd open() {
        UniqueFd file =
            safe_path::openFile(home_, FILE_PATH.c_str(), O_RDONLY | O_NOFOLLOW, 0, seen_);
        if (file)
            return file;
        if (errno == ENOENT)
            add("is missing");
        else if (errno == EINVAL || errno == ELOOP)
            addInTheWay();
        else
            lookFromOutside(errno);
        return file;
    }

    void lookFromOutside(int error) {
        const bool isSeen =
            isWantOfRights(error) &&
            safe_path::status(home_, FILE_PATH.c_str(), seen_, safe_path::LastLink::keep) == 0;
        if (isSeen && !S_ISREG(seen_.st_mode))
            return addInTheWay();
        if (isSeen)
            compareOwnership();
        meet(error, std::strerror(error), "what it says was");
    }

    void compareOwnership() {
        addOwnershipItems(items_, about_, mail::fileDifferences(seen_, means_.maildirsize), seen_,
                          means_.maildirsize);
    }

    // Whatever lies in place of the file is replaced, unless it is a directory.
    void addInTheWay() {
        struct stat seen = {};
        const bool isDirectory =
            safe_path::status(home_, FILE_PATH.c_str(), seen, safe_path::LastLink::keep) == 0 &&
            S_ISDIR(seen.st_mode);
        if (isDirectory)
            fail("is a directory");
        else
            add("is no regular file");
    }

    void compare(int file, const std::optional<MaildirsizeLimits>& limits, bool recount) {
        compareOwnership();
        std::string text(mail::MAILDIRSIZE_READ_MAX + 1, '\0');
        const ssize_t length = read_fully(file, text.data(), text.size());
        if (length < 0)
            return meet(errno, std::strerror(errno), "what it says was");
        text.resize(static_cast<std::size_t>(length));
        const std::optional<Contents> contents =
            text.size() > mail::MAILDIRSIZE_READ_MAX ? std::nullopt : parse(text);
        if (!contents)
            return add("is damaged");
        if (limits && (contents->limits.bytes != limits->bytes ||
                       contents->limits.messages != limits->messages))
            add(ItemKind::limits, "has other limits in its header", textOf(*limits),
                textOf(contents->limits));
        if (recount)
            compareUsage(*contents);
    }

    void compareUsage(const Contents& contents) {
        const std::optional<MaildirUsage> counted = countIn(home_);
        if (!counted)
            return meet(errno, "is not written: the messages cannot be counted",
                        "the messages were");
        if (counted->refusal != 0)
            return meet(counted->refusal, {}, "the messages were");
        if ((contents.bytes == counted->bytes && contents.messages == counted->messages) ||
            isUsageOfAgent(contents, *counted))
            return;
        add(ItemKind::usage, "has another sum than the messages (bytes, messages)",
            usageText(counted->bytes, counted->messages),
            usageText(contents.bytes, contents.messages));
    }

    void add(const std::string& reason) {
        items_.push_back(about_);
        items_.back().reason = reason;
    }

    void add(ItemKind kind, const char* reason, std::string expected, std::string found) {
        add(reason);
        items_.back().kind = kind;
        items_.back().expected = std::move(expected);
        items_.back().found = std::move(found);
    }

    // Something at which a run's stage fails, too.
    void fail(const std::string& reason) {
        isBlocked_ = true;
        add(reason);
    }

    // The same, unless it is who looks that has not the rights to go on: `hiding` was then not
    // looked at.
    void meet(int error, const std::string& reason, const char* hiding) {
        if (isWantOfRights(error))
            items_.push_back(hidden(about_, error, hiding));
        else
            fail(reason);
    }

    Items& items_;
    Item about_;
    int home_;
    const Means& means_;
    struct stat seen_ = {};
    bool isBlocked_ = false;
};

}  // namespace

QuotaStage lookAtMaildirsize(Items& items, const Item& about, int home, long long quota,
                             const Means& means, bool recount, bool canWrite) {
    return MaildirsizeLook(items, about, home, means).run(quota, recount, canWrite);
}

}  // namespace corvo::audit
