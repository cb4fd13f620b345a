// What differs between the storage and what a full run would make of it.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "audit/record.h"

namespace corvo::audit {

/// What an item is about.
enum class ItemKind {
    domainRoot,
    home,
    directory,        // of a home
    deliveryFile,     // `.qmail`: that it is there, its owner and mode
    delivery,         // whether it delivers, and by which line
    forward,          // one that is missing
    surplusLine,      // one that a run removes
    lineOrder,        // all lines are there, in another order or more than once
    maildirsize,      // that it is there and sound, its owner and mode
    limits,           // in its header
    usage,            // the sum of its lines
    quotaRow,         // in the user database
    overquotaRecords  // in the handlers database
};

/// As it stands in all that is printed.
const char* nameOf(ItemKind kind) noexcept;

/// Which run puts an item right.
enum class Repair {
    none,
    all,    // `--all`
    either  // `--all` and `--fast`
};

/// Texts are bytes as they came from the database or the disk.
struct Item {
    ItemKind kind = {};
    std::string domain;   // empty: of no domain
    std::string mailbox;  // the mail name; empty: of none
    std::string path;     // or the table, for rows
    std::string reason;   // in words
    std::optional<std::string> expected;
    std::optional<std::string> found;
    Repair repair = Repair::none;
    bool isExtra = false;   // the panel does not know it, and a run leaves it alone
    bool isHidden = false;  // no difference: see hidden()
};

using Items = std::vector<Item>;

/// Whether a look failed at the rights of who looks. A run, as root, has them.
bool isWantOfRights(int error) noexcept;

/// In place of items: what could not be looked at for want of rights. `what` says which of all that
/// the path stands for.
Item hidden(const Item& about, int error, const char* what);

/// An item as it is printed: the object of docs/mail_audit.schema.json, and a line for a terminal.
Record recordOf(const Item& item);
std::string lineOf(const Item& item);

}  // namespace corvo::audit
