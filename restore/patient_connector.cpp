#include "restore/patient_connector.h"

#include <chrono>
#include <span>
#include <thread>

#include "lib/db++/connect.h"

namespace corvo::mail::restore {

namespace {

using namespace std::chrono_literals;

using Pauses = std::span<const std::chrono::milliseconds>;

// Between the attempts, three seconds in all.
constexpr std::chrono::milliseconds PAUSES[] = {200ms, 400ms, 800ms, 1600ms};

// Tries once, and once more after each pause as long as that may help.
st_mysql* attempt(Pauses pauses, db_connect_failure& failure) {
    st_mysql* handle = corvo_db_attempt(failure);
    for (const auto pause : pauses) {
        if (handle != nullptr || !may_pass_by_itself(failure))
            break;
        std::this_thread::sleep_for(pause);
        handle = corvo_db_attempt(failure);
    }
    return handle;
}

}  // namespace

mysql::Connection PatientConnector::open() {
    db_connect_failure failure;
    st_mysql* const handle = attempt(isPatient_ ? Pauses(PAUSES) : Pauses(), failure);
    if (handle == nullptr)
        print_db_connect_failure(failure);
    isPatient_ = handle != nullptr || (isPatient_ && !may_pass_by_itself(failure));
    return mysql::Connection::owning(handle);
}

}  // namespace corvo::mail::restore
