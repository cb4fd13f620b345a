#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/subject.h"
#include "lib/db++/connect.h"
#include "utils/guards.h"
#include "utils/ini_file.h"
#include "utils/runtime_config.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

UniqueCString dsnValue(const char* key) {
    return UniqueCString(get_ini_conf_var(DSN_FILE, DSN_SECTION, key));
}

// Of a file with a secret that could be opened.
void judgeSecret(const Subject& secret, const std::string& path, const LookedAt& found) {
    if (mayEverybodyRead(found.seen))
        secret.problem(path + " can be read by everybody: " + ownerAndMode(found.seen),
                       "chmod o-rwx " + path);
    else if (mayOthersWrite(found.seen))
        secret.problem(path + " can be changed by others: " + ownerAndMode(found.seen),
                       "chown root " + path + "; chmod go-w " + path);
    else
        secret.ok(path);
}

// What came of the look at the file: its errno, or 0 where it may be asked for its values.
int checkDsn(const Subject& dsn) {
    const std::string path = DSN_FILE;
    const LookedAt found = lookAtFile(path);
    if (found.error == 0)
        judgeSecret(dsn, path, found);
    else if (found.error == ENOENT)
        dsn.warning(
            path + " is not there: the defaults are taken",
            "write host, username and dbname into it, below [" + std::string(DSN_SECTION) + "]");
    else
        dsn.unreadable(path, found.error);
    return found.error;
}

void checkPassword(const Subject& password, bool canAskDsn) {
    if (canAskDsn && dsnValue("password"))
        return password.ok(std::string("in ") + DSN_FILE);
    const std::string path = ADMIN_PASSWORD_FILE;
    const LookedAt found = lookAtFile(path);
    if (found.error != 0)
        password.unreadable(path, found.error);
    else
        judgeSecret(password, path, found);
}

// The socket serves only the host of this name.
bool isServerLocal(bool canAskDsn) {
    const UniqueCString host = canAskDsn ? dsnValue("host") : nullptr;
    return !host || std::strcmp(host.get(), "localhost") == 0;
}

}  // namespace

void checkSocket(const CheckSink& sink, const std::string& path) {
    const Subject socket(sink, "database socket");
    const std::string advice =
        "start the database server, or write the path of its socket as "
        "MYSQL_SOCKET into " +
        std::string(CONFIGURATION_FILE);
    struct stat seen = {};
    if (::stat(path.c_str(), &seen) != 0)  // a root-owned path
        socket.problem(path + ": " + std::strerror(errno), advice);
    else if (!S_ISSOCK(seen.st_mode))
        socket.problem(path + " is no socket", advice);
    else
        socket.ok(path);
}

bool checkCredentials(const CheckSink& sink) {
    const int error = checkDsn(Subject(sink, "credentials"));
    checkPassword(Subject(sink, "password"), error == 0);
    if (isServerLocal(error == 0))
        checkSocket(sink, vhcConfGetDefaultByIndex(MYSQL_SOCKET));
    else
        Subject(sink, "database socket").ok("not used: the server is reached over the network");
    return error == 0 || error == ENOENT;
}

}  // namespace corvo::audit
