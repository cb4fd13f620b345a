#include "tests/faults/disturb/expendable_server.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace corvo::faults {

namespace {

constexpr const char* RECORD = "/run/expendable_server";
constexpr std::chrono::seconds PATIENCE{30};
constexpr std::chrono::milliseconds PAUSE{20};

std::string mustRun(const std::vector<std::string>& command) {
    const test::ProcessResult result = test::run(command);
    if (result.status != 0)
        throw std::runtime_error(command.front() + ": " + result.err);
    return result.out;
}

// The command that lets a server execute statements.
std::vector<std::string> client(const std::string& socket, const std::string& statements) {
    return {"mariadb", "--no-defaults", "--user=root", "--socket=" + socket, "-e", statements};
}

template <typename Condition>
void waitUntil(Condition condition, const std::string& what) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(what);
        std::this_thread::sleep_for(PAUSE);
    }
}

/// SQL's concatenation of a row's values, each as a literal.
std::string literalsOf(test::PanelDatabase& panel, const std::string& table) {
    const std::vector<std::string> columns = panel.query(
        "SELECT column_name FROM information_schema.columns"
        " WHERE table_schema = DATABASE() AND table_name = '" +
        table + "' ORDER BY ordinal_position");
    std::string literals;
    for (const std::string& column : columns)
        literals += ", QUOTE(`" + column + "`)";
    return "CONCAT_WS(','" + literals + ")";
}

/// The statements that insert a table's rows.
std::string insertionOf(test::PanelDatabase& panel, const std::string& table) {
    std::string script;
    for (const std::string& row :
         panel.query("SET NAMES utf8; SELECT " + literalsOf(panel, table) + " FROM " + table))
        script += "INSERT INTO " + table + " VALUES (" + row + ");\n";
    return script;
}

/// The statements that make the panel's database and its login, so that they survive a kill.
std::string copyOf(test::PanelDatabase& panel) {
    std::string script = "SET GLOBAL innodb_flush_log_at_trx_commit=1;\nSET NAMES utf8;\n";
    script += "CREATE DATABASE " + panel.name() + ";\nUSE " + panel.name() + ";\n";
    for (const std::string& table : panel.query("SHOW TABLES")) {
        const std::string definition = panel.query("SHOW CREATE TABLE " + table).at(0);
        script += definition.substr(table.size() + 1) + ";\n" + insertionOf(panel, table);
    }
    const std::string login = "'" + panel.user() + "'@'localhost'";
    for (const std::string what : {"CREATE USER ", "GRANTS FOR "})
        for (const std::string& statement : panel.query("SHOW " + what + login))
            script += statement + ";\n";
    return script;
}

}  // namespace

ExpendableServer::Started::Started() {
    mustRun({CORVO_PRIVATE_MARIADB, "start", RECORD});
}

ExpendableServer::Started::~Started() {
    test::run({CORVO_PRIVATE_MARIADB, "stop", RECORD});
}

ExpendableServer::ExpendableServer(test::PanelDatabase& panel)
    : folder_(std::filesystem::read_symlink(std::string(RECORD) + "/server")) {
    std::istringstream arguments(
        test::contentsOf("/proc/" + std::to_string(process()) + "/cmdline"));
    for (std::string argument; std::getline(arguments, argument, '\0');)
        command_.push_back(argument);
    copyFrom(panel);
}

pid_t ExpendableServer::process() const {
    return std::stoi(test::contentsOf(folder_ + "/pid"));
}

bool ExpendableServer::answers() const {
    return test::run(client(socket(), "DO 1")).status == 0;
}

void ExpendableServer::copyFrom(test::PanelDatabase& panel) const {
    const std::string script = std::string(RECORD) + "/panel.sql";
    test::writeFile(script, copyOf(panel));
    mustRun(client(socket(), "source " + script));
}

void ExpendableServer::kill() {
    const pid_t server = process();
    ::kill(server, SIGKILL);
    waitUntil([server] { return ::kill(server, 0) != 0 && errno == ESRCH; },
              "the killed server does not end");
}

// Through a shell that is gone at once, so that the server is no child of anybody here.
void ExpendableServer::revive() {
    std::vector<std::string> launch = {
        "/bin/sh", "-c",
        "pid=$1; shift; setsid \"$@\" </dev/null >/dev/null 2>&1 & echo $! >\"$pid\"", "sh",
        folder_ + "/pid"};
    launch.insert(launch.end(), command_.begin(), command_.end());
    mustRun(launch);
    waitUntil([this] { return answers(); }, "the server does not start again");
}

void ExpendableServer::reviveIfKilled() {
    if (!answers())
        revive();
}

}  // namespace corvo::faults
