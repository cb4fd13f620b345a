#include <exception>
#include <iostream>

#include "audit/program.h"
#include "utils/accounts.h"
#include "utils/messlog.h"
#include "utils/program_start.h"
#include "utils/safe_path.h"

int main(int argc, char** argv) {
    corvo::ensureStandardDescriptors();
    corvo::sleepNoLongerThanAsked();
    corvo::safe_path::setStorageOwner(is_popuser);
    corvo::safe_path::keepAccessTimes();
    PROGNAME = argv[0];
    try {
        return corvo::audit::run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "mail_audit: " << failure.what() << '\n';
        return 2;
    }
}
