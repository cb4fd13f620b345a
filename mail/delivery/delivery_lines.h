// What becomes of the lines of a delivery file: without a look at the disk, and without a change
// there. Whoever restores a file and whoever only wants to know what a restoration would make of it
// ask here.
//
// Nothing here logs; what allocates throws std::bad_alloc.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "mail/delivery/delivery_file.h"

namespace corvo::mail {

/// Forwards, as whole lines.
using ForwardLines = std::unordered_set<std::string>;

/// The forwards among the lines, each once. `deliveryLine` is none, whatever it looks like; it may
/// be empty.
Lines forwardsAmong(const Lines& lines, std::string_view deliveryLine);

/// Whether a line hands mail to a program, or puts it into a mailbox that it names by a path: as
/// every known delivery line does.
bool mayDeliver(std::string_view line) noexcept;

/// Whether the lines deliver: by the line of now or by a known one. Where nobody can tell which the
/// line of now is (it is empty), each that may deliver may be it.
bool delivers(const Lines& lines, std::string_view deliveryLine) noexcept;

/// The lines of a restored file: the reset line, the delivery line where there is one (be it
/// empty), the forwards.
Lines restoredLines(std::optional<std::string_view> deliveryLine, const Lines& forwards);

/// What stands between a file and what it should be, in the order in which it is asked for. The
/// first three are missing; where the last two are met, the new file could not be opened or
/// written.
enum class Obstacle { none, agent, lock, line, unopened, unwritten };

/// A file that could be read, and what is to become of it.
struct DeliveryCase {
    bool shallDeliver;
    bool didDeliver;
    bool didForward;
    Obstacle obstacle;  // the first one
    bool isLocked;
};

/// May a new file be put in place? Without its delivery line only in place of one that has none
/// either, and forwards.
bool mayPutInPlace(const DeliveryCase& file) noexcept;

/// Where that was not done, does the old one stay? Otherwise it is reset.
bool isWorthKeeping(const DeliveryCase& file) noexcept;

/// Puts a forward behind all lines but those of `unnamed`, and any equal line away.
void placeForwardAmong(Lines& lines, std::string_view line, const ForwardLines& unnamed);

/// Makes a line the last one, and the only one of its kind.
void putLast(Lines& lines, std::string_view line);

/// The same with each of `moved`, one after the other, in a time that grows with the lines alone.
void putLast(Lines& lines, const Lines& moved);

/// Of lines that are alike, the last.
Lines lastOfEach(const Lines& lines);

/// Removes these forwards, and all but the last of others that stand more than once.
void dropForwardsAmong(Lines& lines, const ForwardLines& unnamed);

}  // namespace corvo::mail
