#include "audit/item.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "audit/text.h"

namespace corvo::audit {

namespace {

Value valueOf(const std::optional<std::string>& text) {
    return text ? Value(*text) : Value();
}

std::vector<std::string> runsThat(Repair repair) {
    switch (repair) {
        case Repair::all:
            return {"--all"};
        case Repair::either:
            return {"--all", "--fast"};
        case Repair::none:
            break;
    }
    return {};
}

// Empty for an item of no mailbox. A row is always one's, be its name empty.
std::string addressOf(const Item& item) {
    const bool isOfMailbox = !item.mailbox.empty() || item.kind == ItemKind::quotaRow;
    return isOfMailbox ? item.mailbox + "@" + item.domain : std::string();
}

std::string_view remarkOn(const Item& item) {
    if (item.isExtra)
        return "the panel does not know it";
    switch (item.repair) {
        case Repair::all:
            return "--all";
        case Repair::either:
            return "--all, --fast";
        case Repair::none:
            break;
    }
    return "no run repairs this";
}

// A part of a line, between `before` and the end.
std::string part(const char* before, const std::optional<std::string>& text) {
    return text ? fmt::format("{}\"{}\"", before, printable(*text)) : std::string();
}

}  // namespace

const char* nameOf(ItemKind kind) noexcept {
    switch (kind) {
        case ItemKind::domainRoot:
            return "domain-root";
        case ItemKind::home:
            return "home";
        case ItemKind::directory:
            return "directory";
        case ItemKind::deliveryFile:
            return "delivery-file";
        case ItemKind::delivery:
            return "delivery";
        case ItemKind::forward:
            return "forward";
        case ItemKind::surplusLine:
            return "surplus-line";
        case ItemKind::lineOrder:
            return "line-order";
        case ItemKind::maildirsize:
            return "maildirsize";
        case ItemKind::limits:
            return "limits";
        case ItemKind::usage:
            return "usage";
        case ItemKind::quotaRow:
            return "quota-row";
        case ItemKind::overquotaRecords:
            return "overquota-records";
    }
    return "";
}

bool isWantOfRights(int error) noexcept {
    return error == EACCES || error == EPERM;
}

Item hidden(const Item& about, int error, const char* what) {
    Item item = about;
    item.isHidden = true;
    item.repair = Repair::none;
    item.reason = fmt::format("{}: {} not looked at", std::strerror(error), what);
    return item;
}

Record recordOf(const Item& item) {
    return {{"kind", nameOf(item.kind)},
            {"domain", valueUnlessEmpty(item.domain)},
            {"mailbox", valueUnlessEmpty(addressOf(item))},
            {"path", item.path},
            {"expected", valueOf(item.expected)},
            {"found", valueOf(item.found)},
            {"reason", item.reason},
            {"repair", runsThat(item.repair)},
            {"extra", item.isExtra}};
}

std::string lineOf(const Item& item) {
    const bool isRow = item.kind == ItemKind::quotaRow;
    const std::string subject = isRow ? addressOf(item) + " in " : std::string();
    return fmt::format("{}{}: {}{}{} [{}]", printable(subject), printable(item.path),
                       printable(item.reason), part(", expected ", item.expected),
                       part(", found ", item.found), remarkOn(item));
}

}  // namespace corvo::audit
