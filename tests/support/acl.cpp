#include "tests/support/acl.h"

#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "tests/support/sandbox.h"

namespace corvo::test {

namespace {

constexpr __le32 NO_ID = static_cast<__le32>(ACL_UNDEFINED_ID);

using Entries = std::vector<posix_acl_xattr_entry>;

void setAcl(const std::string& path, const char* kind, const Entries& entries) {
    constexpr posix_acl_xattr_header HEADER = {POSIX_ACL_XATTR_VERSION};
    const std::size_t size = entries.size() * sizeof entries[0];
    std::vector<char> value(sizeof HEADER + size);
    std::memcpy(value.data(), &HEADER, sizeof HEADER);
    std::memcpy(value.data() + sizeof HEADER, entries.data(), size);
    if (::setxattr(path.c_str(), kind, value.data(), value.size(), 0) != 0)
        throw std::system_error(errno, std::generic_category(), "ACL of " + path);
}

}  // namespace

void openNewEntriesToAll(const std::string& directory) {
    setAcl(directory, "system.posix_acl_default",
           {{ACL_USER_OBJ, 7, NO_ID}, {ACL_GROUP_OBJ, 7, NO_ID}, {ACL_OTHER, 7, NO_ID}});
}

void letPopuserWorkIn(const std::string& directory) {
    setAcl(directory, "system.posix_acl_access",
           {{ACL_USER_OBJ, 7, NO_ID},
            {ACL_USER, 7, POPUSER_UID},
            {ACL_GROUP_OBJ, 5, NO_ID},
            {ACL_MASK, 7, NO_ID},
            {ACL_OTHER, 5, NO_ID}});
}

}  // namespace corvo::test
