// The directories that every home holds, and the modes of the mail tree.

#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace corvo::mail {

inline constexpr mode_t DOMAIN_ROOT_MODE = 0750;
inline constexpr mode_t HOME_MODE = 0700;  // of all that is in it, too

struct SkeletonEntry {
    const char* path;  // below the home
    const char* name;
    std::size_t depth;  // how many directories of the skeleton it lies in
};

constexpr SkeletonEntry skeletonEntry(const char* path) {
    const std::string_view text = path;
    return {.path = path,
            .name = text.substr(text.rfind('/') + 1).data(),  // the end of `path`
            .depth = static_cast<std::size_t>(std::count(text.begin(), text.end(), '/'))};
}

/// In the order of creation: a directory comes before what is in it.
inline constexpr std::array SKELETON = {
    skeletonEntry("Maildir"),
    skeletonEntry("Maildir/tmp"),
    skeletonEntry("Maildir/new"),
    skeletonEntry("Maildir/cur"),
    skeletonEntry("Maildir/.Spam"),
    skeletonEntry("Maildir/.Spam/tmp"),
    skeletonEntry("Maildir/.Spam/new"),
    skeletonEntry("Maildir/.Spam/cur"),
    skeletonEntry("Maildir/.Sent"),
    skeletonEntry("Maildir/.Sent/tmp"),
    skeletonEntry("Maildir/.Sent/new"),
    skeletonEntry("Maildir/.Sent/cur"),
    skeletonEntry("Maildir/.Drafts"),
    skeletonEntry("Maildir/.Drafts/tmp"),
    skeletonEntry("Maildir/.Drafts/new"),
    skeletonEntry("Maildir/.Drafts/cur"),
    skeletonEntry("Maildir/.Trash"),
    skeletonEntry("Maildir/.Trash/tmp"),
    skeletonEntry("Maildir/.Trash/new"),
    skeletonEntry("Maildir/.Trash/cur"),
    skeletonEntry("@attachments"),
};

inline constexpr std::size_t SKELETON_LEVELS = 3;

}  // namespace corvo::mail
