// The mail handler "check-quota", which rejects messages for mailboxes that are over their quota.
//
// Functions return 0, or -1 after logging; none throws. Records that are not all as they should be
// are replaced one by one: after a failure fewer of them may be there than wanted, and the next run
// repairs that.

#pragma once

/// Removes the handler from the mail handlers database and, unless `reject` is 0, registers it
/// again; leaves the database alone where that would change nothing. A removal that fails is logged
/// and no failure.
int restore_check_quota_handler(int reject, int permanent) noexcept;

/// Registers the handler for its two queues; `permanent` (not 0) makes its rejections permanent.
int set_check_quota_handler(int permanent) noexcept;
