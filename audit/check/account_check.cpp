#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/subject.h"
#include "utils/accounts.h"

namespace corvo::audit {

namespace {

// Why a look-up found nothing, which it says with errno.
std::string reasonOr(const char* notFound) {
    return errno == 0 ? notFound : std::strerror(errno);
}

void checkUser(const Subject& account) {
    errno = 0;
    const passwd* const user = ::getpwnam(POPUSER);
    if (user == nullptr)
        account.problem(reasonOr("there is no such account"),
                        "make it again, with the numbers that own the mail tree");
    else if (user->pw_uid == 0)
        account.problem("its uid is root's", "give it a uid of its own");
    else
        account.ok("uid " + std::to_string(user->pw_uid) + ", gid " + std::to_string(user->pw_gid));
}

void checkGroup(const Subject& group) {
    errno = 0;
    const struct group* const found = ::getgrnam(POPUSER);
    if (found == nullptr)
        group.problem(reasonOr("there is no such group"),
                      "make it again, with the number that owns the mail tree");
    else
        group.ok("gid " + std::to_string(found->gr_gid));
}

}  // namespace

void checkAccount(const CheckSink& sink) {
    checkUser(Subject(sink, "account popuser"));
    checkGroup(Subject(sink, "group popuser"));
}

}  // namespace corvo::audit
