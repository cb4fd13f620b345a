// Small files that are written as a whole.

#pragma once

/// Makes `text` the whole content of the file, which is created when missing, for its owner alone.
/// Returns 0, or -1 with the errno of what failed, logged once at priority 3. A file that could be
/// opened but not written is removed. The path is opened as utils/safe_path.h says.
int write_text_file(const char* path, const char* text) noexcept;
