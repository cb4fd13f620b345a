#include "tests/faults/disturb/row_generator.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <map>
#include <string_view>
#include <system_error>

namespace corvo::faults {

namespace {

constexpr std::size_t ROWS_PER_BATCH = 64;
constexpr std::size_t SHUFFLE_SEED = 1;
constexpr std::size_t SHOWN_BYTES = 120;

// Each kind of id has a range of its own; those of honest rows are smaller.
constexpr std::size_t DOMAIN_ID = 1'000'000;
constexpr std::size_t PARAMETERS_ID = 2'000'000;
constexpr std::size_t SUBSCRIPTION_ID = 3'000'000;
constexpr std::size_t LIMITS_ID = 4'000'000;
constexpr std::size_t MAIL_ID = 5'000'000;

struct Target {
    const char* table;
    const char* column;
    Meaning meaning;
    int share;  // of the random rows
};

constexpr Target TARGETS[] = {
    {"domains", "id", Meaning::key, 1},
    {"domains", "name", Meaning::domain, 8},
    {"DomainServices", "dom_id", Meaning::key, 1},
    {"DomainServices", "type", Meaning::word, 1},
    {"DomainServices", "status", Meaning::number, 1},
    {"DomainServices", "parameters_id", Meaning::key, 1},
    {"Parameters", "id", Meaning::key, 1},
    {"Parameters", "parameter", Meaning::word, 1},
    {"Parameters", "value", Meaning::word, 1},
    {"Subscriptions", "id", Meaning::key, 1},
    {"Subscriptions", "object_type", Meaning::word, 1},
    {"Subscriptions", "object_id", Meaning::key, 1},
    {"SubscriptionProperties", "subscription_id", Meaning::key, 1},
    {"SubscriptionProperties", "name", Meaning::word, 1},
    {"SubscriptionProperties", "value", Meaning::key, 1},
    {"Limits", "id", Meaning::key, 1},
    {"Limits", "limit_name", Meaning::word, 1},
    {"Limits", "value", Meaning::number, 3},
    {"mail", "id", Meaning::key, 1},
    {"mail", "mail_name", Meaning::name, 8},
    {"mail", "dom_id", Meaning::key, 1},
    {"mail", "postbox", Meaning::word, 1},
    {"mail", "delivery", Meaning::word, 1},
    {"mail", "mail_group", Meaning::word, 1},
    {"mail", "mbox_quota", Meaning::number, 4},
    {"mail_redir", "mn_id", Meaning::key, 1},
    {"mail_redir", "address", Meaning::address, 8},
    {"misc", "param", Meaning::word, 1},
    {"misc", "val", Meaning::word, 1},
};

bool isAt(const Column& column, std::string_view table, std::string_view name) {
    return column.table == table && column.name == name;
}

// Rows stay connected when the key that they share becomes hostile.
void replaceKey(std::vector<Row>& rows, const std::string& key, const Cell& value) {
    for (Row& row : rows)
        for (auto& [column, cell] : row.cells)
            if (cell == key)
                cell = value;
}

void change(std::vector<Row>& rows, const Column& column, const Cell& value) {
    const bool isKey = isAt(column, "domains", "id") || isAt(column, "mail", "id") ||
                       isAt(column, "Parameters", "id");
    for (Row& row : rows) {
        if (row.table != column.table)
            continue;
        for (auto& [name, cell] : row.cells) {
            if (name != column.name)
                continue;
            if (isKey && cell)
                return replaceKey(rows, std::string(*cell), value);
            cell = value;
        }
    }
}

std::vector<Row> soundRows(std::size_t number) {
    const auto id = [number](std::size_t first) { return std::to_string(first + number); };
    const std::string suffix = std::to_string(number);
    return {
        {"domains", {{"id", id(DOMAIN_ID)}, {"name", "d" + suffix + ".hostile.example"}}},
        {"DomainServices",
         {{"dom_id", id(DOMAIN_ID)},
          {"type", "mail"},
          {"status", "0"},
          {"parameters_id", id(PARAMETERS_ID)}}},
        {"Parameters",
         {{"id", id(PARAMETERS_ID)}, {"parameter", "nonexist_mail"}, {"value", "reject"}}},
        {"Subscriptions",
         {{"id", id(SUBSCRIPTION_ID)}, {"object_type", "domain"}, {"object_id", id(DOMAIN_ID)}}},
        {"SubscriptionProperties",
         {{"subscription_id", id(SUBSCRIPTION_ID)},
          {"name", "limitsId"},
          {"value", id(LIMITS_ID)}}},
        {"Limits", {{"id", id(LIMITS_ID)}, {"limit_name", "mbox_quota"}, {"value", "1048576"}}},
        {"mail",
         {{"id", id(MAIL_ID)},
          {"mail_name", "m" + suffix},
          {"dom_id", id(DOMAIN_ID)},
          {"postbox", "true"},
          {"delivery", "true"},
          {"mail_group", "true"},
          {"mbox_quota", "-1"}}},
        {"mail_redir", {{"mn_id", id(MAIL_ID)}, {"address", "somebody@example.org"}}},
    };
}

// A server-wide setting: only the first row of a name is read.
Row soundSetting() {
    return {"misc", {{"param", "reject_mail_when_overquota"}, {"val", "true"}}};
}

// As the product reads a status: an optional sign, digits, nothing else, and it fits.
bool isNumber(std::string_view text) {
    if (text.starts_with('+') && !text.starts_with("+-"))
        text.remove_prefix(1);
    long long number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end;
}

std::string describeCell(const Cell& cell) {
    if (!cell)
        return "NULL";
    return "\"" + printable(*cell) + "\" (" + std::to_string(cell->size()) + " bytes)";
}

std::vector<HostileRow> everyKnownRow() {
    std::vector<HostileRow> rows;
    for (const Target& target : TARGETS)
        for (const Cell& value : knownValues(target.meaning))
            rows.push_back({0, {{{target.table, target.column}, value}}});
    return rows;
}

std::string inUpperCase(std::string text) {
    for (char& c : text)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

// One mailbox that several rows name, in several letters, each with a quota of its own.
std::vector<HostileRow> twins() {
    std::vector<HostileRow> rows;
    for (const std::string domain : {"twin.example", "TWIN.example", "Twin.Example"})
        for (const std::string name : {"twin", "TWIN", "twiN"})
            rows.push_back({0,
                            {{{"domains", "name"}, domain},
                             {{"mail", "mail_name"}, name},
                             {{"mail", "mbox_quota"}, std::to_string(rows.size())}}});
    return rows;
}

// The honest domains once more, in letters that come to the same directory.
std::vector<HostileRow> honestNames(const std::vector<std::string>& domains) {
    std::vector<HostileRow> rows;
    for (const std::string& domain : domains)
        for (const std::string& name : {domain, inUpperCase(domain), domain + ".", "." + domain})
            rows.push_back({0, {{{"domains", "name"}, name}}});
    return rows;
}

const Target& randomTarget(std::mt19937_64& random) {
    int shares = 0;
    for (const Target& target : TARGETS)
        shares += target.share;
    auto left = static_cast<int>(below(static_cast<std::size_t>(shares), random));
    const auto* target = std::begin(TARGETS);
    while (left >= target->share)
        left -= target++->share;
    return *target;
}

// One to three columns of a domain, with values from a seed.
HostileRow randomRow(std::size_t seed) {
    std::mt19937_64 random(seed);
    HostileRow row;
    for (std::size_t left = 1 + below(3, random); left > 0; --left) {
        const Target& target = randomTarget(random);
        row.changes.push_back({{target.table, target.column}, randomValue(target.meaning, random)});
    }
    return row;
}

void append(std::vector<HostileRow>& rows, std::vector<HostileRow> more) {
    std::move(more.begin(), more.end(), std::back_inserter(rows));
}

// Every batch is to be a sample of everything.
void shuffle(std::vector<HostileRow>& rows) {
    std::mt19937_64 random(SHUFFLE_SEED);
    for (std::size_t left = rows.size(); left > 1; --left)
        std::swap(rows[left - 1], rows[below(left, random)]);
}

std::vector<HostileRow> allRows(std::size_t count, const std::vector<std::string>& honestDomains) {
    std::vector<HostileRow> rows = everyKnownRow();
    append(rows, twins());
    append(rows, honestNames(honestDomains));
    for (std::size_t seed = 0; rows.size() < count; ++seed)
        rows.push_back(randomRow(seed));
    shuffle(rows);
    for (std::size_t number = 0; number < rows.size(); ++number)
        rows[number].number = number;
    return rows;
}

}  // namespace

std::vector<Column> columnsThatARunReads() {
    std::vector<Column> columns;
    for (const Target& target : TARGETS)
        columns.push_back({target.table, target.column});
    return columns;
}

std::vector<Row> HostileRow::rows() const {
    std::vector<Row> rows = soundRows(number);
    const auto isSetting = [](const auto& changed) { return changed.first.table == "misc"; };
    if (std::any_of(changes.begin(), changes.end(), isSetting))
        rows.push_back(soundSetting());
    for (const auto& [column, value] : changes)
        change(rows, column, value);
    return rows;
}

bool HostileRow::endsTheWalk() const {
    return std::any_of(changes.begin(), changes.end(), [](const auto& changed) {
        const auto& [column, value] = changed;
        return isAt(column, "DomainServices", "status") && !isNumber(value.value_or(""));
    });
}

std::string HostileRow::describe() const {
    std::string text = "row " + std::to_string(number) + ":";
    for (const auto& [column, value] : changes)
        text += " " + column.table + "." + column.name + "=" + describeCell(value);
    return text;
}

std::vector<Batch> hostileBatches(std::size_t count,
                                  const std::vector<std::string>& honestDomains) {
    std::vector<Batch> batches;
    std::vector<HostileRow> together;
    const auto close = [&](std::vector<HostileRow> rows) {
        if (!rows.empty())
            batches.push_back({"rows/" + std::to_string(batches.size()), std::move(rows)});
    };
    for (HostileRow& row : allRows(count, honestDomains)) {
        if (row.endsTheWalk()) {
            close({std::move(row)});
            continue;
        }
        together.push_back(std::move(row));
        if (together.size() == ROWS_PER_BATCH)
            close(std::exchange(together, {}));
    }
    close(std::move(together));
    return batches;
}

std::string printable(std::string_view bytes) {
    std::string text;
    for (const char c : bytes.substr(0, SHOWN_BYTES)) {
        char piece[8];
        const bool isPlain = c >= ' ' && c <= '~' && c != '"' && c != '\\';
        (void)std::snprintf(piece, sizeof piece, isPlain ? "%c" : "\\x%02x",
                            isPlain ? c : static_cast<unsigned char>(c));
        text += piece;
    }
    return bytes.size() > SHOWN_BYTES ? text + "..." : text;
}

std::string insertStatement(const Row& row) {
    std::string columns;
    std::string values;
    for (const auto& [column, cell] : row.cells) {
        columns += (columns.empty() ? "" : ",") + column;
        values += values.empty() ? "" : ",";
        if (!cell) {
            values += "NULL";
            continue;
        }
        values += "x'";
        for (const char c : *cell) {
            char digits[3];
            (void)std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
            values += digits;
        }
        values += "'";
    }
    return "INSERT INTO " + row.table + " (" + columns + ") VALUES (" + values + ");";
}

}  // namespace corvo::faults
