#include <sqlite3.h>

#include <csignal>
#include <exception>

#include "driver/exception_report.h"
#include "driver/run.h"
#include "utils/accounts.h"
#include "utils/messlog.h"
#include "utils/program_start.h"
#include "utils/safe_path.h"

namespace {

// A reader that goes away, or a file that meets its size limit, fails the write and not the run.
void ignoreWriteSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// There is one thread, and nobody asks how much memory SQLite has taken: together they would be a
// tenth of a restore's instructions.
void leaveOutOfSqliteWhatNobodyUses() {
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

}  // namespace

int main(int argc, char** argv) {
    corvo::ensureStandardDescriptors();
    ignoreWriteSignals();
    corvo::sleepNoLongerThanAsked();
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
