#include "tests/faults/disturb/become_popuser.h"

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "tests/support/sandbox.h"

namespace corvo::faults {

void becomePopuser() {
    constexpr uid_t uid = test::POPUSER_UID;
    constexpr gid_t gid = test::POPUSER_GID;
    // The last call comes last: a change of identity takes it back.
    if (::setgroups(0, nullptr) != 0 || ::setresgid(gid, gid, gid) != 0 ||
        ::setresuid(uid, uid, uid) != 0 || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        throw std::system_error(errno, std::generic_category(), "become popuser");
}

}  // namespace corvo::faults
