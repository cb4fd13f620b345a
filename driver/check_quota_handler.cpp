#include "driver/check_quota_handler.h"

#include <cstdio>

#include "mail/handlers/mail_handlers_db.h"
#include "utils/log.h"

namespace {

constexpr const char* HOOKS_D = "/usr/local/vhc/handlers/hooks";
constexpr int PRIORITY = 10;
constexpr int QUEUES[] = {1, 4};

// Lent to a record, whose strings are not const; nothing writes into them.
char NAME[] = "check-quota";
char ADDRESS[] = "all-recipients";
char PERMANENT[] = "permanent";

}  // namespace

int restore_check_quota_handler(int reject, int permanent) noexcept {
    (void)mh_db_remove_name(nullptr, NAME);
    if (reject == 0)
        return 0;
    return set_check_quota_handler(permanent);
}

int set_check_quota_handler(int permanent) noexcept {
    char executable[4096];
    (void)std::snprintf(executable, sizeof executable, "%s/%s", HOOKS_D, NAME);
    mh_data record;
    mh_data_init_ex(&record);
    record.priority = PRIORITY;
    record.type = MH_GLOBAL_HANDLER_TYPE;
    record.name = NAME;
    record.address = ADDRESS;
    record.executable = executable;
    record.context = permanent != 0 ? PERMANENT : nullptr;
    record.enabled = true;
    for (const int queue : QUEUES) {
        record.queue = queue;
        if (mh_db_add(nullptr, &record) < 0) {
            corvo::Log().line(LOG_ERR, "Unable to add check-quota mail handler.");
            return -1;
        }
    }
    return 0;
}
