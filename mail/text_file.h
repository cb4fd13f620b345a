// Small files that are written as a whole.
//
// They are created when missing, for their owner alone. Functions return 0, or -1 with the errno of
// what failed, logged once at priority 3. A file that could be opened but not written is removed.
// Paths are opened as utils/safe_path.h says.

#pragma once

/// Makes `text` the whole content of the file.
int write_text_file(const char* path, const char* text) noexcept;

/// The same, and then gives the file to `user` alone (0600). A file that was written but could not
/// be given away stays.
int write_text_file_for(const char* path, const char* text, const char* user) noexcept;
