#include "mail/handlers/check_quota_records.h"

namespace {

constexpr int PRIORITY = 10;
constexpr int QUEUES[] = {1, 4};

// Lent to records, whose strings are not const; nothing writes into them.
char name[] = "check-quota";
char address[] = "all-recipients";
char executable[] = "/usr/local/vhc/handlers/hooks/check-quota";
char permanently[] = "permanent";

mh_data recordOf(int queue, bool permanent) noexcept {
    mh_data record;
    mh_data_init_ex(&record);
    record.priority = PRIORITY;
    record.type = MH_GLOBAL_HANDLER_TYPE;
    record.queue = queue;
    record.name = name;
    record.address = address;
    record.executable = executable;
    record.context = permanent ? permanently : nullptr;
    record.enabled = true;
    return record;
}

}  // namespace

std::array<mh_data, 2> check_quota_records(bool permanent) noexcept {
    return {recordOf(QUEUES[0], permanent), recordOf(QUEUES[1], permanent)};
}
