#include <fcntl.h>

#include <cerrno>
#include <sstream>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/subject.h"
#include "utils/strings.h"

namespace corvo::audit {

namespace {

constexpr const char* PROTECTED_HARDLINKS = "/proc/sys/fs/protected_hardlinks";
constexpr const char* FUSE_CONFIGURATION = "/etc/fuse.conf";

void checkHardLinks(const Subject& links) {
    const auto value = contentsOfSmall(AT_FDCWD, PROTECTED_HARDLINKS);
    if (!value)
        links.unreadable(PROTECTED_HARDLINKS, errno);
    else if (value->starts_with('0'))
        links.warning("fs.protected_hardlinks is 0: popuser may link others' files into mail",
                      "sysctl fs.protected_hardlinks=1");
    else
        links.ok("fs.protected_hardlinks is on");
}

bool hasLine(const std::string& text, const char* wanted) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        if (line.resize(strip_str(line.data())), line == wanted)
            return true;
    return false;
}

void checkUserFileSystems(const Subject& fuse) {
    const auto text = contentsOfSmall(AT_FDCWD, FUSE_CONFIGURATION);
    if (!text && errno != ENOENT)
        fuse.unreadable(FUSE_CONFIGURATION, errno);
    else if (text && hasLine(*text, "user_allow_other"))
        fuse.warning(std::string(FUSE_CONFIGURATION) +
                         " has user_allow_other: popuser may show links as root's",
                     "take the line out");
    else
        fuse.ok("popuser's are closed to root");
}

}  // namespace

void checkProtection(const CheckSink& sink) {
    checkHardLinks(Subject(sink, "hard links"));
    checkUserFileSystems(Subject(sink, "file systems in user space"));
}

}  // namespace corvo::audit
