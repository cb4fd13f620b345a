#include "audit/item.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string_view>

#include "audit/output.h"
#include "audit/text.h"

namespace corvo::audit {

namespace {

using Json = nlohmann::ordered_json;

Json jsonOrNull(const std::optional<std::string>& text) {
    return text ? jsonText(*text) : Json();
}

Json jsonUnlessEmpty(const std::string& text) {
    return text.empty() ? Json() : jsonText(text);
}

Json jsonOf(Repair repair) {
    switch (repair) {
        case Repair::all:
            return Json::array({"--all"});
        case Repair::either:
            return Json::array({"--all", "--fast"});
        case Repair::none:
            break;
    }
    return Json::array();
}

// Empty for an item of no mailbox.
std::string addressOf(const Item& item) {
    return item.mailbox.empty() ? std::string() : item.mailbox + "@" + item.domain;
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

Json objectOf(const Item& item) {
    return {{"kind", nameOf(item.kind)},
            {"domain", jsonUnlessEmpty(item.domain)},
            {"mailbox", jsonUnlessEmpty(addressOf(item))},
            {"path", jsonText(item.path)},
            {"expected", jsonOrNull(item.expected)},
            {"found", jsonOrNull(item.found)},
            {"reason", jsonText(item.reason)},
            {"repair", jsonOf(item.repair)},
            {"extra", item.isExtra}};
}

std::string lineOf(const Item& item) {
    const bool isRow = item.kind == ItemKind::quotaRow && !item.mailbox.empty();
    const std::string subject = isRow ? addressOf(item) + " in " : std::string();
    return fmt::format("{}{}: {}{}{} [{}]", printable(subject), printable(item.path),
                       printable(item.reason), part(", expected ", item.expected),
                       part(", found ", item.found), remarkOn(item));
}

}  // namespace corvo::audit
