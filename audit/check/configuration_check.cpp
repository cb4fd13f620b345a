#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/subject.h"
#include "utils/runtime_config.h"

namespace corvo::audit {

namespace {

bool isCapital(char c) {
    return c >= 'A' && c <= 'Z';
}

void checkFile(const Subject& configuration) {
    const std::string path = CONFIGURATION_FILE;
    const LookedAt found = lookAtFile(path);
    if (found.error == ENOENT)
        configuration.warning(path + " is not there: the defaults are taken",
                              "write MYSQL_SOCKET into it, and CORVO_MAILNAMES_D for another root");
    else if (found.error != 0)
        configuration.unreadable(path, found.error);
    else if (mayOthersWrite(found.seen))
        configuration.problem(path + " can be changed by others: " + ownerAndMode(found.seen),
                              "chown root " + path + "; chmod go-w " + path);
    else
        configuration.ok(path);
}

}  // namespace

void checkRootSetting(const CheckSink& sink, const std::string& root) {
    const Subject setting(sink, "mail names root setting");
    if (!root.starts_with('/'))
        setting.problem("CORVO_MAILNAMES_D is no absolute path: " + root,
                        "write the whole path into " + std::string(CONFIGURATION_FILE));
    else if (std::any_of(root.begin(), root.end(), isCapital))
        setting.warning(root + " has capitals: maildirsize is looked for in lower case",
                        "use a root without capitals");
    else
        setting.ok(root);
}

void checkConfiguration(const CheckSink& sink) {
    checkFile(Subject(sink, "configuration"));
    checkRootSetting(sink, vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D));
}

}  // namespace corvo::audit
