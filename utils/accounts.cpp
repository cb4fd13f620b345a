#include "utils/accounts.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/guards.h"
#include "utils/messlog.h"

namespace {

struct passwd* findUser(const char* name) noexcept {
    errno = 0;
    return ::getpwnam(name);
}

// What kept a look-up from finding: the error of the databases, or `absent`.
const char* reason(const char* absent) noexcept {
    return errno != 0 ? std::strerror(errno) : absent;
}

bool isNumber(const char* text) noexcept {
    return text[std::strspn(text, "0123456789")] == '\0';
}

struct group* lookupGid(const char* digits) noexcept {
    // Too large a number is the largest one, which names no group; it must not wrap to another's.
    const unsigned long number = std::strtoul(digits, nullptr, 10);
    const auto gid = static_cast<gid_t>(std::min<unsigned long>(number, UINT_MAX));
    errno = 0;
    struct group* const found = ::getgrgid(gid);
    if (found == nullptr)
        messlog2(0, 0, "getgrgid(%u): %s", gid, reason(GROUP_NOT_FOUND));
    return found;
}

}  // namespace

// Leaves alone what getpwnam keeps for others.
bool is_popuser(uid_t uid) noexcept {
    struct passwd entry = {};
    struct passwd* found = nullptr;
    char strings[4096];
    return ::getpwnam_r(POPUSER, &entry, strings, sizeof strings, &found) == 0 &&
           found != nullptr && found->pw_uid == uid;
}

struct group* lookup_group(const char* name_or_number) noexcept {
    if (name_or_number == nullptr || *name_or_number == '\0')
        return nullptr;
    if (isNumber(name_or_number))
        return lookupGid(name_or_number);
    errno = 0;
    struct group* const found = ::getgrnam(name_or_number);
    if (found == nullptr)
        messlog2(0, 0, "getgrnam(%s): %s", name_or_number, reason(GROUP_NOT_FOUND));
    return found;
}

gid_t get_group_id(const char* name) noexcept {
    const struct group* const found = lookup_group(name);
    return found != nullptr ? found->gr_gid : 0;
}

gid_t get_group_if_exists(const char* name, int* found) noexcept {
    const struct group* const group = lookup_group(name);
    *found = group != nullptr ? 1 : 0;
    return group != nullptr ? group->gr_gid : 0;
}

int corvo_getpw(const char* name, uid_t* uid, gid_t* gid, char** home) noexcept {
    const struct passwd* const user = findUser(name);
    corvo::UniqueCString copy(user != nullptr && home != nullptr ? ::strdup(user->pw_dir)
                                                                 : nullptr);
    if (user == nullptr || (home != nullptr && !copy)) {
        messlog2(0, 0, "Unable to getpwnam for user %s", name);
        return -1;
    }
    if (uid != nullptr)
        *uid = user->pw_uid;
    if (gid != nullptr)
        *gid = user->pw_gid;
    if (home != nullptr)
        *home = copy.release();
    return 0;
}

id_t corvo_ugid(const char* name, int want_gid) noexcept {
    uid_t uid = 0;
    gid_t gid = 0;
    if (corvo_getpw(name, &uid, &gid, nullptr) != 0)
        return 0;
    return want_gid != WANT_UID ? gid : uid;
}

uid_t get_user_id(const char* name) noexcept {
    const struct passwd* const user = findUser(name);
    if (user != nullptr)
        return user->pw_uid;
    messlog2(0, 0, "Unable to find uid for user %s: %s", name, reason("User not found"));
    return 0;
}

const char* get_user_name(uid_t uid) noexcept {
    static char name[4096];
    errno = 0;
    const struct passwd* const user = ::getpwuid(uid);
    if (user != nullptr)
        (void)std::snprintf(name, sizeof name, "%s", user->pw_name);
    else
        (void)std::snprintf(name, sizeof name, "%u", uid);
    return name;
}
