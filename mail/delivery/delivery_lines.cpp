#include "mail/delivery/delivery_lines.h"

#include <algorithm>
#include <iterator>

namespace corvo::mail {

namespace {

// Of forwards that stand more than once, where one was added that could not be removed before.
void keepLastOfEach(Lines& lines) {
    std::unordered_set<std::string_view> seen;
    const auto isEarlier = [&](std::string_view line) {
        return isForward(line) && !seen.insert(line).second;
    };
    lines.erase(lines.begin(), std::remove_if(lines.rbegin(), lines.rend(), isEarlier).base());
}

}  // namespace

Lines forwardsAmong(const Lines& lines, std::string_view deliveryLine) {
    Lines forwards;
    std::unordered_set<std::string_view> seen;
    for (const std::string_view line : lines)
        if (isForward(line) && line != deliveryLine && seen.insert(line).second)
            forwards.push_back(line);
    return forwards;
}

bool mayDeliver(std::string_view line) noexcept {
    return line != RESET_LINE &&
           (line.starts_with('|') || line.starts_with('/') || line.starts_with('.'));
}

bool delivers(const Lines& lines, std::string_view deliveryLine) noexcept {
    return std::any_of(lines.begin(), lines.end(), [&](std::string_view line) {
        return deliveryLine.empty() ? mayDeliver(line)
                                    : line == deliveryLine || isKnownDeliveryLine(line);
    });
}

Lines restoredLines(std::optional<std::string_view> deliveryLine, const Lines& forwards) {
    Lines lines = {RESET_LINE};
    if (deliveryLine)
        lines.push_back(*deliveryLine);
    lines.insert(lines.end(), forwards.begin(), forwards.end());
    return lines;
}

bool mayPutInPlace(const DeliveryCase& file) noexcept {
    return file.isLocked &&
           (file.obstacle == Obstacle::none || (file.didForward && !file.didDeliver));
}

bool isWorthKeeping(const DeliveryCase& file) noexcept {
    return (file.didDeliver && file.shallDeliver) || file.didForward;
}

void placeForwardAmong(Lines& lines, std::string_view line, const ForwardLines& unnamed) {
    std::erase(lines, line);
    const auto isUnnamed = [&](std::string_view other) {
        return isForward(other) && unnamed.contains(std::string(other));
    };
    lines.insert(std::find_if(lines.begin(), lines.end(), isUnnamed), line);
}

void putLast(Lines& lines, std::string_view line) {
    std::erase(lines, line);
    lines.push_back(line);
}

void putLast(Lines& lines, const Lines& moved) {
    const std::unordered_set<std::string_view> old(moved.begin(), moved.end());
    std::erase_if(lines, [&](std::string_view line) { return old.contains(line); });
    const Lines last = lastOfEach(moved);
    lines.insert(lines.end(), last.begin(), last.end());
}

Lines lastOfEach(const Lines& lines) {
    Lines last;
    std::unordered_set<std::string_view> seen;
    std::copy_if(lines.rbegin(), lines.rend(), std::back_inserter(last),
                 [&](std::string_view line) { return seen.insert(line).second; });
    std::reverse(last.begin(), last.end());
    return last;
}

void dropForwardsAmong(Lines& lines, const ForwardLines& unnamed) {
    std::erase_if(lines,
                  [&](std::string_view line) { return unnamed.contains(std::string(line)); });
    keepLastOfEach(lines);
}

}  // namespace corvo::mail
