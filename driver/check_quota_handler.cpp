#include "driver/check_quota_handler.h"

#include <span>

#include "mail/handlers/check_quota_records.h"
#include "mail/handlers/mail_handlers_db.h"
#include "utils/log.h"

namespace {

bool isRight(bool reject, bool permanent) noexcept {
    const auto records = check_quota_records(permanent);
    const std::span<const mh_data> wanted(records.data(), reject ? records.size() : 0);
    return !mh_db_name_differences(nullptr, CHECK_QUOTA_HANDLER, wanted).any();
}

}  // namespace

int restore_check_quota_handler(int reject, int permanent) noexcept {
    if (isRight(reject != 0, permanent != 0))
        return 0;
    (void)mh_db_remove_name(nullptr, CHECK_QUOTA_HANDLER);
    if (reject == 0)
        return 0;
    return set_check_quota_handler(permanent);
}

int set_check_quota_handler(int permanent) noexcept {
    auto records = check_quota_records(permanent != 0);
    for (mh_data& record : records) {
        if (mh_db_add(nullptr, &record) < 0) {
            corvo::Log().line(LOG_ERR, "Unable to add check-quota mail handler.");
            return -1;
        }
    }
    return 0;
}
