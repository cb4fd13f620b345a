// A delivery file as a whole: what it holds, what it should hold, and the one step from the one to
// the other.
//
// Nothing here logs. What returns bool returns false with errno on failure; what allocates throws
// std::bad_alloc.

#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "mail/home/differences.h"
#include "utils/file_lock.h"
#include "utils/line_rewrite.h"

namespace corvo::mail {

/// Every line that ever delivered into a mailbox of this system. A null ends them.
extern const char* const KNOWN_DELIVERY_LINES[];

/// The line that accepts mail and discards it, alone in a file that was reset.
inline constexpr std::string_view RESET_LINE = "| true";

/// In bytes; a larger delivery file is one that cannot be read.
inline constexpr off_t LARGEST_DELIVERY_FILE = off_t{1} << 20;

/// Lines without their newlines.
using Lines = std::vector<std::string_view>;

/// The lines of a text, which must outlive them; the last one may lack its newline.
Lines linesOf(std::string_view text);

/// The text that such lines make, each with its newline.
std::string textOf(const Lines& lines);

bool isForward(std::string_view line) noexcept;
bool isKnownDeliveryLine(std::string_view line) noexcept;

/// What was read of a delivery file. One that is missing is an empty one that does not exist.
struct DeliveryContents {
    bool exists = false;
    struct stat seen = {};  // of one that exists
    std::string text;
};

/// Fails for anything but a regular file of at most LARGEST_DELIVERY_FILE bytes that is not
/// another's (see utils/safe_path.h), and for a way that is closed.
[[nodiscard]] bool readDelivery(const line_rewrite::Target& file, DeliveryContents& contents);

/// popuser's, and nobody else's to read. Fails when there is no such account.
[[nodiscard]] bool findDeliveryOwnership(Ownership& ownership) noexcept;

/// What differs between a delivery file and the text and owner that it should have.
[[nodiscard]] Differences deliveryDifferences(const DeliveryContents& contents,
                                              std::string_view wanted,
                                              const Ownership& ownership) noexcept;

/// How far a new file came.
enum class Replaced { whole, notOpened, notWritten };

/// Puts a new file with this text in place of the old one, once it is on the disk. The old one
/// stays until then, and on failure, with errno.
[[nodiscard]] Replaced replaceDelivery(const line_rewrite::Target& file, std::string_view text,
                                       const Ownership& ownership) noexcept;

/// How often a change is attempted: what takes its place where it fails takes two steps, between
/// which a line is missing, and a failure of the moment is no reason for that.
inline constexpr int CHANGE_ATTEMPTS = 3;

/// changeDelivery, once.
template <typename Edit>
[[nodiscard]] bool attemptChange(const char* path, Edit& edit) {
    const LineLock lock(path);
    const line_rewrite::Target file(path);
    DeliveryContents old;
    Ownership ownership = {};
    if (!lock.isHeld() || !readDelivery(file, old) || !findDeliveryOwnership(ownership))
        return false;
    Lines lines = linesOf(old.text);
    edit(lines);
    if (!old.exists && lines.empty())
        return true;
    const std::string text = textOf(lines);
    return !deliveryDifferences(old, text, ownership).any() ||
           replaceDelivery(file, text, ownership) == Replaced::whole;
}

/// Runs `edit` on the lines of the file under its lock and puts what it made of them in place,
/// unless all is as it should be. A missing file has no lines, and stays missing where it gets
/// none.
template <typename Edit>
[[nodiscard]] bool changeDelivery(const char* path, Edit edit) {
    for (int attempt = 0; attempt < CHANGE_ATTEMPTS; ++attempt)
        if (attemptChange(path, edit))
            return true;
    return false;
}

}  // namespace corvo::mail
