#include "tests/support/panel.h"

#include <gtest/gtest.h>
#include <mysql.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <stdexcept>

#include "tests/support/files.h"
#include "tests/support/skip.h"

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

constexpr const char* PASSWORD = "open sesame";

// Where the script that starts the server says why it cannot.
constexpr const char* OBSTACLE = CORVO_PANEL_SERVER "/obstacle";

// Each kind of id has a range of its own, so that a join on the wrong column finds nothing.
constexpr int FIRST_PARAMETERS_ID = 1001;
constexpr int FIRST_LIMITS_ID = 20001;

struct CloseHandle {
    void operator()(MYSQL* handle) const { mysql_close(handle); }
};
using Handle = std::unique_ptr<MYSQL, CloseHandle>;

struct FreeResult {
    void operator()(MYSQL_RES* result) const { mysql_free_result(result); }
};
using StoredResult = std::unique_ptr<MYSQL_RES, FreeResult>;

// As the server's administrator; an empty database is none.
Handle connectAsRoot(const std::string& database) {
    Handle handle(mysql_init(nullptr));
    mysql_options(handle.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
    if (mysql_real_connect(handle.get(), "localhost", "root", "", nullptr, 0,
                           PanelDatabase::socket().c_str(), CLIENT_MULTI_STATEMENTS) == nullptr)
        throw std::runtime_error("the private MariaDB server does not answer: " +
                                 std::string(mysql_error(handle.get())));
    if (!database.empty() && mysql_select_db(handle.get(), database.c_str()) != 0)
        throw std::runtime_error(mysql_error(handle.get()));
    return handle;
}

std::string joined(MYSQL_RES* result, MYSQL_ROW row) {
    const unsigned long* lengths = mysql_fetch_lengths(result);
    std::string text;
    for (unsigned int i = 0; i < mysql_num_fields(result); ++i) {
        if (i > 0)
            text += '|';
        text += row[i] == nullptr ? "NULL" : std::string(row[i], lengths[i]);
    }
    return text;
}

std::vector<std::string> takeRows(MYSQL* handle) {
    std::vector<std::string> rows;
    const StoredResult result(mysql_store_result(handle));
    if (result)
        while (const MYSQL_ROW row = mysql_fetch_row(result.get()))
            rows.push_back(joined(result.get(), row));
    return rows;
}

// The rows of the last statement.
std::vector<std::string> runAsRoot(const std::string& database, const std::string& sql) {
    const Handle handle = connectAsRoot(database);
    std::vector<std::string> rows;
    int status = mysql_real_query(handle.get(), sql.data(), sql.size());
    while (status == 0) {
        rows = takeRows(handle.get());
        status = mysql_next_result(handle.get());
    }
    if (mysql_errno(handle.get()) != 0)
        throw std::runtime_error(sql + ": " + mysql_error(handle.get()));
    return rows;
}

std::string text(long long number) {
    return std::to_string(number);
}

std::string quoted(const std::string& bytes) {
    std::string literal = "'";
    for (const char c : bytes) {
        if (c == '\'' || c == '\\')
            literal += '\\';
        literal += c;
    }
    return literal + "'";
}

// "VALUES (a, b, c)".
std::string values(std::initializer_list<std::string> expressions) {
    std::string list;
    for (const std::string& expression : expressions)
        list += (list.empty() ? "" : ", ") + expression;
    return "VALUES (" + list + ")";
}

std::string flag(bool on) {
    return on ? "'true'" : "'false'";
}

// The id of the row that is inserted.
int insertedId(PanelDatabase& panel, const std::string& insert) {
    return std::stoi(panel.query(insert + " RETURNING id").at(0));
}

void setMailColumn(PanelDatabase& panel, int id, const std::string& column,
                   const std::string& value) {
    panel.execute("UPDATE mail SET " + column + "=" + value + " WHERE id=" + text(id));
}

// The process number keeps tests apart that run side by side.
std::string uniqueName() {
    static int count = 0;
    return "panel" + std::to_string(::getpid()) + "x" + std::to_string(++count);
}

void createDatabase(const std::string& name, const std::string& login) {
    runAsRoot("", "CREATE DATABASE " + name + " CHARACTER SET utf8 COLLATE utf8_general_ci");
    runAsRoot(name, contentsOf(CORVO_PANEL_SCHEMA));
    runAsRoot("", "CREATE USER " + login + " IDENTIFIED BY " + quoted(PASSWORD));
    runAsRoot("", "GRANT ALL PRIVILEGES ON " + name + ".* TO " + login);
}

void dropDatabase(const std::string& name, const std::string& login) {
    runAsRoot("", "DROP DATABASE IF EXISTS " + name + "; DROP USER IF EXISTS " + login);
}

std::string loginOf(const std::string& user) {
    return quoted(user) + "@'localhost'";
}

void writePanelFiles(const std::string& database, const std::string& user) {
    fs::remove(PanelDatabase::SOCKET_LINK);
    makeLink(PanelDatabase::socket(), PanelDatabase::SOCKET_LINK);
    writeFile("/etc/vhc/vhc.conf", "MYSQL_SOCKET " + PanelDatabase::SOCKET_LINK + "\n");
    writeFile("/etc/vhc/private/dsn.ini",
              "[corvo]\nhost = localhost\nusername = " + user + "\ndbname = " + database + "\n", 0,
              0, 0600);
    writeFile("/etc/vhc/.vhc.shadow", std::string(PASSWORD) + "\n", 0, 0, 0600);
}

}  // namespace

std::string PanelDatabase::socket() {
    if (const char* given = std::getenv("CORVO_PANEL_SOCKET"))
        return given;
    const fs::path record = CORVO_PANEL_SERVER "/server";
    if (fs::exists(OBSTACLE))
        skipTest(contentsOf(OBSTACLE));
    if (!fs::is_symlink(record))
        throw std::runtime_error(
            "no private MariaDB server: run \"tests/support/private_mariadb start " +
            record.parent_path().string() + "\" first");
    return fs::read_symlink(record) / "socket";
}

PanelDatabase::PanelDatabase() : name_(uniqueName()), user_(name_) {
    dropDatabase(name_, loginOf(user_));
    createDatabase(name_, loginOf(user_));
    writePanelFiles(name_, user_);
}

PanelDatabase::~PanelDatabase() {
    try {
        dropDatabase(name_, loginOf(user_));
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
}

void PanelDatabase::execute(const std::string& sql) {
    runAsRoot(name_, sql);
}

std::vector<std::string> PanelDatabase::query(const std::string& sql) {
    return runAsRoot(name_, sql);
}

void PanelDatabase::misc(const std::string& param, const std::string& value) {
    execute("REPLACE INTO misc (param, val) " + values({quoted(param), quoted(value)}));
}

void PanelDatabase::mailServer(const std::string& name, const std::string& value) {
    execute("REPLACE INTO ServiceNodeConfiguration (serviceNodeId, section, name, value) " +
            values({"1", "'mailServer'", quoted(name), quoted(value)}));
}

PanelDatabase::Domain PanelDatabase::domain(const std::string& name) {
    const int id =
        insertedId(*this, "INSERT INTO domains (cr_date, name, displayName, htype) " +
                              values({"CURDATE()", quoted(name), quoted(name), "'vrt_hst'"}));
    execute("INSERT INTO DomainServices (dom_id, type, parameters_id) " +
            values({text(id), "'mail'", text(FIRST_PARAMETERS_ID + id)}));
    return Domain(*this, id).parameter("nonexist_mail", "reject");
}

PanelDatabase::Domain& PanelDatabase::Domain::defaultQuota(long long bytes) {
    const std::string limits = text(FIRST_LIMITS_ID + id_);
    panel_.execute("INSERT IGNORE INTO Subscriptions (object_type, object_id) " +
                   values({"'domain'", text(id_)}));
    panel_.execute(
        "REPLACE INTO SubscriptionProperties (subscription_id, name, value) SELECT id, "
        "'limitsId', " +
        limits + " FROM Subscriptions WHERE object_type='domain' AND object_id=" + text(id_));
    panel_.execute("REPLACE INTO Limits (id, limit_name, value) " +
                   values({limits, "'mbox_quota'", text(bytes)}));
    return *this;
}

PanelDatabase::Domain& PanelDatabase::Domain::status(long long value) {
    panel_.execute("UPDATE DomainServices SET status=" + text(value) +
                   " WHERE type='mail' AND dom_id=" + text(id_));
    return *this;
}

PanelDatabase::Domain& PanelDatabase::Domain::parameter(const std::string& name,
                                                        const std::string& value) {
    panel_.execute("REPLACE INTO Parameters (id, parameter, value) " +
                   values({text(FIRST_PARAMETERS_ID + id_), quoted(name), quoted(value)}));
    return *this;
}

PanelDatabase::Domain& PanelDatabase::Domain::alias(const std::string& name, bool mail,
                                                    long long status) {
    panel_.execute("INSERT INTO domain_aliases (name, displayName, dom_id, status, mail) " +
                   values({quoted(name), quoted(name), text(id_), text(status), flag(mail)}));
    return *this;
}

PanelDatabase::Mailname PanelDatabase::Domain::mailname(const std::string& name) {
    const int id = insertedId(panel_, "INSERT INTO mail (mail_name, dom_id, postbox, delivery) " +
                                          values({quoted(name), text(id_), "'true'", "'true'"}));
    return {panel_, id};
}

PanelDatabase::Mailname& PanelDatabase::Mailname::postbox(bool on) {
    setMailColumn(panel_, id_, "postbox", flag(on));
    return *this;
}

PanelDatabase::Mailname& PanelDatabase::Mailname::delivery(bool on) {
    setMailColumn(panel_, id_, "delivery", flag(on));
    return *this;
}

PanelDatabase::Mailname& PanelDatabase::Mailname::quota(long long bytes) {
    setMailColumn(panel_, id_, "mbox_quota", std::to_string(bytes));
    return *this;
}

PanelDatabase::Mailname& PanelDatabase::Mailname::group(bool on) {
    setMailColumn(panel_, id_, "mail_group", flag(on));
    return *this;
}

PanelDatabase::Mailname& PanelDatabase::Mailname::alias(const std::string& name) {
    panel_.execute("INSERT INTO mail_aliases (mn_id, alias) " + values({text(id_), quoted(name)}));
    return *this;
}

PanelDatabase::Mailname& PanelDatabase::Mailname::redirect(const std::string& address) {
    panel_.execute("INSERT INTO mail_redir (mn_id, address) " +
                   values({text(id_), quoted(address)}));
    return *this;
}

}  // namespace corvo::test
