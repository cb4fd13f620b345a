#include <fcntl.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "driver/exception_report.h"
#include "driver/run.h"
#include "utils/accounts.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace {

// A file that the run opens must never become its standard output: messages would go into it.
void ensureStandardDescriptors() {
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);  // root-owned path
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO)
        ::close(fd);
}

// A reader that goes away, or a file that meets its size limit, fails the write and not the run.
void ignoreWriteSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// The database client sleeps a microsecond in each connect; the kernel's slack makes that fifty.
void sleepNoLongerThanAsked() {
    ::prctl(PR_SET_TIMERSLACK, 1UL);
}

// There is one thread, and nobody asks how much memory SQLite has taken: together they would be a
// tenth of a restore's instructions.
void leaveOutOfSqliteWhatNobodyUses() {
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

}  // namespace

int main(int argc, char** argv) {
    ensureStandardDescriptors();
    ignoreWriteSignals();
    sleepNoLongerThanAsked();
    leaveOutOfSqliteWhatNobodyUses();
    corvo::safe_path::setStorageOwner(is_popuser);
    PROGNAME = argv[0];
    try {
        return do_main(argc, argv);
    } catch (const std::exception& e) {
        corvo::reportException<std::exception>(e);
        return 1;
    } catch (...) {
        corvo::reportUntypedException();
        return 2;
    }
}
