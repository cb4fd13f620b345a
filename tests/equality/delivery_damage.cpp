#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "mail/delivery/delivery_file.h"
#include "tests/equality/damage.h"
#include "tests/faults/disturb/hostile_values.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::equality {

namespace {

namespace fs = std::filesystem;

using faults::below;
using test::POPUSER_GID;
using test::POPUSER_UID;
using Texts = std::vector<std::string>;

constexpr int RIGHT = 30;  // in a hundred
constexpr int SECOND_DAMAGE = 15;

const std::string ASIDE = "/var/qmail/aside";

const Texts FORWARDS = {"&a@away.example", "&b@away.example",     "&c@away.example",
                        "&d@away.example", "&anna@one.example",   "&f@away.example",
                        "&g@away.example", "&Upper@away.example", "&upper@away.example"};
const Texts OTHER_LINES = {
    "# a comment",       "./Other/",      "|/usr/bin/filter", "", "|true", "&", "a@b.test\r",
    "&a@away.example\r", "& x@y.example", "/var/mail/mbox"};

// The delivery file of one home, while it is damaged.
struct Place {
    std::string path;
    std::string line;  // the default delivery line
    std::mt19937_64& random;

    std::string text() const {
        return fs::is_regular_file(fs::symlink_status(path)) ? test::contentsOf(path) : "";
    }
    void write(const std::string& text) const {
        test::writeFile(path, text, POPUSER_UID, POPUSER_GID, 0600);
    }
};

Texts linesOf(const std::string& text) {
    Texts lines;
    for (const std::string_view line : mail::linesOf(text))
        lines.emplace_back(line);
    return lines;
}

std::string textOf(const Texts& lines) {
    return mail::textOf({lines.begin(), lines.end()});
}

std::string someDelivery(const Place& place) {
    std::size_t count = 0;
    while (mail::KNOWN_DELIVERY_LINES[count] != nullptr)
        ++count;
    const std::size_t chosen = below(count + 2, place.random);
    return chosen < count ? mail::KNOWN_DELIVERY_LINES[chosen] : place.line;
}

void remove(const Place& place) {
    fs::remove(place.path);
}

void cutNewline(const Place& place) {
    std::string text = place.text();
    if (!text.empty())
        text.pop_back();
    place.write(text);
}

void shuffleLines(const Place& place) {
    Texts lines = linesOf(place.text());
    for (std::size_t left = lines.size(); left > 1; --left)
        std::swap(lines[left - 1], lines[below(left, place.random)]);
    place.write(textOf(lines));
}

void reverseForwards(const Place& place) {
    Texts lines = linesOf(place.text());
    const auto first = std::find_if(lines.begin(), lines.end(),
                                    [](const std::string& line) { return mail::isForward(line); });
    std::reverse(first, lines.end());
    place.write(textOf(lines));
}

void insertLines(const Place& place, const Texts& from) {
    Texts lines = linesOf(place.text());
    for (std::size_t left = 1 + below(3, place.random); left > 0; --left)
        lines.insert(
            lines.begin() + static_cast<std::ptrdiff_t>(below(lines.size() + 1, place.random)),
            pick(from, place.random));
    place.write(textOf(lines));
}

void insertForwards(const Place& place) {
    insertLines(place, FORWARDS);
}

void insertOthers(const Place& place) {
    insertLines(place, OTHER_LINES);
}

void doubleLine(const Place& place) {
    const Texts lines = linesOf(place.text());
    if (!lines.empty())
        insertLines(place, lines);
}

void dropLine(const Place& place) {
    Texts lines = linesOf(place.text());
    if (!lines.empty())
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(below(lines.size(), place.random)));
    place.write(textOf(lines));
}

void deliverOtherwise(const Place& place) {
    Texts lines = {"| true", someDelivery(place)};
    for (std::size_t left = below(4, place.random); left > 0; --left)
        lines.push_back(pick(FORWARDS, place.random));
    if (chance(30, place.random))
        lines.erase(lines.begin());
    place.write(textOf(lines));
}

void discard(const Place& place) {
    place.write("| true\n");
}

void forwardOnly(const Place& place) {
    place.write(textOf({"| true", pick(FORWARDS, place.random), pick(FORWARDS, place.random)}));
}

void writeBytes(const Place& place) {
    std::string text;
    for (std::size_t left = below(60, place.random); left > 0; --left)
        text += pick(std::string("&@a.\n\n\0| true", 13), place.random);
    place.write(text);
}

void fill(const Place& place) {
    const std::size_t size = static_cast<std::size_t>(mail::LARGEST_DELIVERY_FILE) +
                             pick(std::vector<std::size_t>{0, 1, 5000}, place.random);
    std::string text = place.text();
    while (text.size() + 16 < size)
        text += "# a long comment";
    text.resize(size - 1, '#');
    place.write(text + "\n");
}

void makePipe(const Place& place) {
    fs::remove_all(place.path);
    (void)::mkfifo(place.path.c_str(), 0600);
}

void makeFolder(const Place& place) {
    fs::remove_all(place.path);
    test::makeDirectory(place.path + "/within");
}

// Moves the file to another name, which a link leads to.
void moveBehindLink(const Place& place) {
    const std::string other = place.path + "-target";
    const bool isOutside = chance(50, place.random);
    const std::string target =
        isOutside ? ASIDE + "/target" + std::to_string(below(1000, place.random)) : other;
    if (chance(80, place.random)) {
        test::writeFile(target, place.text(), POPUSER_UID, POPUSER_GID, 0600);
        if (chance(30, place.random))
            (void)!::chown(target.c_str(), 0, 0);
    }
    fs::remove_all(place.path);
    test::makeLink(isOutside ? target : fs::path(target).filename().string(), place.path,
                   chance(70, place.random) ? POPUSER_UID : 0);
}

void addSecondName(const Place& place) {
    if (!fs::exists(place.path))
        return;
    const std::string second = chance(50, place.random)
                                   ? place.path + "-second"
                                   : ASIDE + "/second" + std::to_string(below(1000, place.random));
    std::error_code taken;
    fs::create_hard_link(place.path, second, taken);
    if (chance(30, place.random))
        (void)!::chown(place.path.c_str(), 0, 0);
}

void changeOwner(const Place& place) {
    if (fs::exists(place.path))
        (void)!::chown(place.path.c_str(), chance(50, place.random) ? 0 : test::STRANGER_UID,
                       chance(50, place.random) ? 0 : POPUSER_GID);
}

void changeMode(const Place& place) {
    if (fs::exists(place.path))
        (void)!::chmod(place.path.c_str(),
                       pick(std::vector<mode_t>{0644, 0400, 0, 0660, 04600}, place.random));
}

void leaveTemporary(const Place& place) {
    test::writeFile(place.path + ".tmp", "left by a killed run");
}

constexpr void (*DAMAGES[])(const Place&) = {
    remove,          cutNewline,     shuffleLines,     reverseForwards,
    reverseForwards, insertForwards, insertForwards,   insertOthers,
    doubleLine,      dropLine,       deliverOtherwise, deliverOtherwise,
    discard,         forwardOnly,    writeBytes,       fill,
    makePipe,        makeFolder,     moveBehindLink,   addSecondName,
    changeOwner,     changeMode,     moveBehindLink,   moveBehindLink,
    moveBehindLink,  addSecondName,  leaveTemporary,
};

int damagesTo(std::mt19937_64& random) {
    if (chance(RIGHT, random))
        return 0;
    return chance(SECOND_DAMAGE, random) ? 2 : 1;
}

// No pipe, whose reading would not end, and no directory.
bool isFile(const std::string& path) {
    const fs::file_status status = fs::symlink_status(path);
    return !fs::is_fifo(status) && !fs::is_directory(status);
}

}  // namespace

void damageDelivery(const Description& description, const std::string& line,
                    std::mt19937_64& random) {
    test::makeDirectory(ASIDE);
    test::chownToPopuser(ASIDE);
    std::set<std::string> seen;
    for (const Mailname& name : description.mailnames) {
        const std::string home = test::MAILNAMES + "/" + name.home();
        if (!fs::is_directory(home) || !seen.insert(home).second)
            continue;
        const Place place{home + "/.qmail", line, random};
        for (int left = damagesTo(random); left > 0; --left)
            if (isFile(place.path))
                attemptDamage([&] { DAMAGES[below(std::size(DAMAGES), random)](place); });
    }
}

}  // namespace corvo::equality
