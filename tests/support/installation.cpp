#include "tests/support/installation.h"

#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test {

namespace {

std::string supportFile(const std::string& name) {
    return contentsOf(std::string(CORVO_SUPPORT_FOLDER) + "/" + name);
}

void installDatabase(const std::string& path, const std::string& script, uid_t owner, mode_t mode) {
    makeDirectory(std::filesystem::path(path).parent_path());
    sqliteExecute(path, supportFile(script));
    writeFile(path, contentsOf(path), owner, POPUSER_GID, mode);
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

}  // namespace

void installMailServer() {
    installDatabase(USERDB, "userdb.sql", POPUSER_UID, 0644);
    installDatabase(HANDLERS, "handlers.sql", 0, 0640);
    writeFile(DEFAULT_DELIVERY, DELIVERY_LINE + "\n", POPUSER_UID, POPUSER_GID, 0600);
    installDeliverquota();
}

void loadSample(PanelDatabase& panel) {
    panel.execute(supportFile("sample_panel.sql"));
}

std::vector<std::string> quotaRows() {
    return sqliteRows(USERDB, "SELECT * FROM mailbox_quota ORDER BY domain_name, mailbox_name");
}

std::vector<std::string> handlerRows() {
    return sqliteRows(HANDLERS,
                      "SELECT queue, type, enabled, priority, name, address, executable, context,"
                      " protected FROM handlers ORDER BY name, queue");
}

std::string restoredState() {
    std::string files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(MAILNAMES))
        if (entry.is_regular_file())
            files += entry.path().string() + ":\n" + contentsOf(entry.path()) + "\n";
    return listTree(MAILNAMES) + files + joined(quotaRows()) + joined(handlerRows());
}

}  // namespace corvo::test
