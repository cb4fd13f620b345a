// Delivery files: ".qmail" in the home of a mail name, a line for each way its mail goes.
//
// Functions return 0, or -1 with the errno of what failed, logged through corvo_log or by the
// helper that failed. The mail name comes before its domain here, other than in the classes and in
// store_mbox_quota. A file that was changed belongs to popuser with mode 0600. None throws.
// What removes lines and adds one does so in one step, and in two where the one cannot be made.

#pragma once

#include <string>

/// Makes the server-wide delivery line the only one of the known delivery lines; forwards stay. The
/// file must exist. Needs a delivery agent. Each failing step logs its reason, and then
/// "Unable to add delivery string to '%s'" follows.
int dotqmail_add_delivery(const char* path) noexcept;
int add_mailname_delivery(const char* mailname, const char* domain) noexcept;

/// Remove all known delivery lines. The file must exist.
int dotqmail_remove_delivery(const char* path) noexcept;
int remove_mailname_delivery(const char* mailname, const char* domain) noexcept;

/// As dotqmail_remove_delivery, with owner and mode left as they were. Its message has priority 4.
int dotqmail_remove_delivery_strings(const char* path) noexcept;

/// Makes the file one that accepts and discards. A file that cannot be written is removed.
int dotqmail_reset(const char* path) noexcept;

/// Add a forward, as the last line, once. The domain of `address` may be international. An address
/// without "@", one that cannot be converted, or that would add more than one line, fails with
/// EINVAL.
int dotqmail_add_forward(const char* path, const char* address) noexcept;
int add_mn_forward(const char* mailname, const char* domain, const char* address) noexcept;

/// Remove a forward. One that is not there is no failure; the file must exist.
int dotqmail_remove_forward(const char* path, const char* address) noexcept;
int rm_mn_forward(const char* mailname, const char* domain, const char* address) noexcept;

namespace corvo::mail {

/// The line that dotqmail_add_forward adds for an address; empty, silently, where it fails. Throws
/// std::bad_alloc.
std::string forwardLine(const std::string& address);

}  // namespace corvo::mail
