// Restoring a delivery file in one step, so that there is no instant at which mail that was
// delivered before, and shall be, is discarded.

#pragma once

#include <optional>
#include <string>

#include "mail/delivery/delivery_lines.h"

namespace corvo::mail {

/// Makes the file the reset line, then the default delivery line when `delivers` is set, then the
/// forwards that it had, each once; popuser's with mode 0600. A file that is so already is left
/// alone.
///
/// Returns 0, or -1 with errno after logging. Where the delivery line cannot be had, an old file
/// that delivers stays, and one that only forwards becomes the reset line with its forwards; where
/// the file cannot be replaced, one that does either stays; one that cannot be read for want of
/// descriptors or memory stays, too. A file that does neither, or that cannot be read otherwise, is
/// reset, and the delivery line is added after that. An empty delivery line is one that cannot be
/// had, but no failure.
///
/// `carriedOver` receives these forwards where the file is now as this function makes it, and is
/// none otherwise. Throws std::bad_alloc; the file is then as it was.
[[nodiscard]] int restoreDelivery(const char* path, bool delivers,
                                  std::optional<ForwardLines>& carriedOver);

/// Puts a forward behind all lines but those of `unnamed`, and any equal line away; a file in which
/// it stands there is left alone. False, silently, when that cannot be done.
[[nodiscard]] bool placeForward(const char* path, const std::string& line,
                                const ForwardLines& unnamed);

/// Makes a forward the last line, and the only one of its kind; or, in a file that cannot be
/// replaced, finds it where it stands. False, silently, when neither can be done.
[[nodiscard]] bool holdForward(const char* path, const std::string& line);

/// Removes the lines. False with errno, silently, when that cannot be done.
[[nodiscard]] bool dropForwards(const char* path, const ForwardLines& unnamed);

}  // namespace corvo::mail
