#include "tests/support/killed_connection.h"

#include <mysql.h>

#include <memory>
#include <stdexcept>

namespace corvo::test {

namespace {

struct CloseHandle {
    void operator()(MYSQL* handle) const { mysql_close(handle); }
};
using Handle = std::unique_ptr<MYSQL, CloseHandle>;

}  // namespace

void killConnection(PanelDatabase& panel, const std::string& id) {
    panel.execute("KILL " + id);
    while (!panel.query("SELECT id FROM information_schema.processlist WHERE id=" + id).empty()) {
    }
}

std::string errorOfKilledConnection(PanelDatabase& panel) {
    const Handle handle(mysql_init(nullptr));
    if (mysql_real_connect(handle.get(), "localhost", "root", "", nullptr, 0,
                           PanelDatabase::socket().c_str(), 0) == nullptr)
        throw std::runtime_error(mysql_error(handle.get()));
    killConnection(panel, std::to_string(mysql_thread_id(handle.get())));
    if (mysql_query(handle.get(), "SELECT 1") == 0)
        throw std::logic_error("the server has not ended the connection");
    return "MySQL error " + std::to_string(mysql_errno(handle.get())) + ": " +
           mysql_error(handle.get());
}

}  // namespace corvo::test
