#include "tests/equality/scene.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/faults/disturb/preloaded.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::equality {

namespace {

namespace fs = std::filesystem;

constexpr const char* ACCOUNTS = "/etc/passwd";
constexpr const char* DATABASES = "/var/lib/corvo";
constexpr const char* LOCKS = "/run/lock/files";
constexpr const char* AGENTS[] = {"/usr/bin/deliverquota", "/usr/libexec/dovecot/dovecot-lda"};

constexpr int WATCHDOG = 30;  // seconds

// What runs change, and where it is remembered.
const std::map<std::string, std::string> REMEMBERED = {
    {STORAGE, "/run/remembered/storage"},
    {DATABASES, "/run/remembered/databases"},
};

void empty(const std::string& folder) {
    for (const std::string& name : test::namesIn(folder))
        fs::remove_all(fs::path(folder) / name);
}

void copyInto(const std::string& from, const std::string& to) {
    const test::ProcessResult result = test::run({"cp", "--archive", from + "/.", to});
    if (result.status != 0)
        throw std::runtime_error("cp: " + result.err);
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text.append(line).append("\n");
    return text;
}

// Values with their types: a BLOB is no text.
std::string rowsOf(const std::string& path, const std::string& columns, const std::string& table) {
    try {
        return joined(
            test::sqliteRows(path, "SELECT " + columns + " FROM " + table + " ORDER BY 1, 2"));
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

void setReadOnly(bool isReadOnly) {
    const unsigned long flags = MS_REMOUNT | static_cast<unsigned long>(isReadOnly ? MS_RDONLY : 0);
    if (::mount("tmpfs", STORAGE.c_str(), "tmpfs", flags, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "remount " + STORAGE);
}

// The bytes of a database tell which pages were written, its rows what is in it.
bool isDatabase(const std::string& path) {
    return path.ends_with(".db");
}

}  // namespace

Scene::Scene() : accounts_(test::contentsOf(ACCOUNTS)) {
    for (const auto& [place, copy] : REMEMBERED)
        test::makeDirectory(copy);
}

void Scene::clear() {
    test::writeFile(ACCOUNTS, accounts_);
    empty(STORAGE);
    empty(DATABASES);
    test::makeDirectory(test::MAILNAMES);
    for (const char* agent : AGENTS)
        fs::remove(agent);
    test::installMailServer();
    fs::remove_all(LOCKS);
    test::makeDirectory(LOCKS);
    fs::permissions(LOCKS, fs::perms::owner_all);
}

void Scene::remember() {
    for (const auto& [place, copy] : REMEMBERED) {
        empty(copy);
        copyInto(place, copy);
    }
}

void Scene::putBack() {
    for (const auto& [place, copy] : REMEMBERED) {
        empty(place);
        copyInto(copy, place);
    }
    if (fs::is_directory(LOCKS))
        empty(LOCKS);
}

Ending Scene::run(const std::string& program, const std::string& mode, bool isReadOnly) {
    if (isReadOnly)
        setReadOnly(true);
    const auto hurry = faults::preloading({"hurried_sleep"});
    const test::ProcessResult result = test::runForked(
        [&] {
            hurry();
            ::execl(program.c_str(), "mail_rebuild", mode.c_str(), nullptr);
            ::_exit(127);
        },
        WATCHDOG);
    if (isReadOnly)
        setReadOnly(false);
    Facts facts = rows();
    facts.insert({{"status", std::to_string(result.status) + (result.timedOut ? ", hung" : "")},
                  {"standard output", result.out},
                  {"standard error", result.err}});
    return {tree(), std::move(facts)};
}

Facts Scene::rows() {
    return {
        {"quota rows", rowsOf(test::USERDB, "quote(domain_name), quote(mailbox_name), quote(quota)",
                              "mailbox_quota")},
        {"handler rows",
         rowsOf(test::HANDLERS,
                "quote(name), quote(queue), quote(type), quote(enabled), quote(priority),"
                " quote(address), quote(executable), quote(context), quote(protected)",
                "handlers")}};
}

faults::Tree Scene::tree() {
    faults::Tree tree = faults::readTree(STORAGE);
    for (auto& [path, entry] : faults::readTree(DATABASES)) {
        if (isDatabase(path))
            entry.content.clear();
        tree["databases/" + path] = entry;
    }
    return tree;
}

}  // namespace corvo::equality
