// The records of the mail handler "check-quota", which rejects messages for mailboxes that are over
// their quota. They are all that is stored under its name while messages are rejected, and nothing
// is while they are not.

#pragma once

#include <array>

#include "mail/handlers/mail_handler.h"

inline constexpr const char* CHECK_QUOTA_HANDLER = "check-quota";

/// One for each of its two queues, in the order of storing; `permanent` makes rejections permanent.
/// Their strings are lent: they are neither to be changed nor freed.
std::array<mh_data, 2> check_quota_records(bool permanent) noexcept;
