// Making the mail handlers database (mh_db_path), with its owner and mode.
//
// Functions return 0, or -1 on failure; the reason has then been logged, at priority 3 where none
// is stated. None throws. What opening a database changes in the process is what
// mail/quota/mail_user_db.h says.

#pragma once

/// Makes the directory and the database, which must not hold the table yet. A missing directory
/// that cannot be made is also logged at priority 2.
int mh_db_create_no_set_permissions() noexcept;

/// Gives a file owner root, group popuser, mode 0640. Failures are logged at priority 2.
int fix_mh_db_permissions(const char* path) noexcept;

/// Both of the above. Deletes a file whose owner and mode could not be set.
int mh_db_create() noexcept;

/// Makes the missing parent directories of `path` (0755). `label` names the database in messages.
int sqlite_create_db_path(const char* path, const char* label) noexcept;

/// Opens or creates the file `path` and runs the script.
int sqlite_db_create(const char* path, const char* script, const char* label) noexcept;
