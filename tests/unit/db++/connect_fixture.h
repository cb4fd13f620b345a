// What the tests of connecting with the panel's credentials share.

#pragma once

#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <string>

#include "lib/db++/connect.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace corvo::mysql::test {

/// How the client library was last asked to connect.
struct ConnectCall {
    std::string host;
    std::string user;
    std::string password;
    std::string database;
    unsigned int port = 0;
    std::string socket;
    unsigned long flags = 0;
};

/// What goes wrong, and what was seen. A real server offers no way to these failures.
struct Client {
    bool initFails = false;
    bool queryFailsSilently = false;
    unsigned int errorNumber = 0;  // instead of the handle's own
    int statError = 0;             // errno for the admin password file
    off_t formerSize = 0;          // of that file, in bytes, where it is not the present one
    int closed = 0;
    ConnectCall call;
};

/// Read by what stands in front of the client library, see connect_test.cpp.
inline Client client;

using corvo::test::openDescriptors;
using corvo::test::PanelDatabase;
using corvo::test::SandboxTest;
using corvo::test::StreamCapture;
using corvo::test::writeFile;

inline const std::string DSN = "/etc/vhc/private/dsn.ini";
inline const std::string SHADOW = "/etc/vhc/.vhc.shadow";

struct CloseHandle {
    void operator()(st_mysql* handle) const { mysql_close(handle); }
};
using Handle = std::unique_ptr<st_mysql, CloseHandle>;

using Connector = st_mysql*(char*, std::size_t) noexcept;

inline const struct {
    const char* name;
    Connector* connect;
} CONNECTORS[] = {
    {"corvo_db_connect_raw_ex", corvo_db_connect_raw_ex},
    {"corvo_db_connect_raw", corvo_db_connect_raw},
    {"corvo_db_connect_ex", corvo_db_connect_ex},
    {"corvo_db_connect", corvo_db_connect},
    {"db_connect_nothrow", db_connect_nothrow},
};

class ConnectTest : public SandboxTest {
protected:
    ConnectTest() { client = {}; }
    void TearDown() override { client = {}; }

    Handle connect(Connector* connector = corvo_db_connect) {
        errno = 0;
        return Handle(connector(reason, sizeof reason));
    }

    // The reason that every member of the family gives.
    void expectRefusal(const std::string& text) {
        const int descriptors = openDescriptors();
        for (const auto& [name, connector] : CONNECTORS) {
            reason[0] = '\0';
            EXPECT_EQ(connect(connector), nullptr) << name;
            EXPECT_EQ(reason, text) << name;
        }
        EXPECT_EQ(openDescriptors(), descriptors);
    }

    std::string answer(const Handle& handle, const std::string& question) {
        if (mysql_query(handle.get(), question.c_str()) != 0)
            return mysql_error(handle.get());
        const std::unique_ptr<MYSQL_RES, decltype(&mysql_free_result)> result(
            mysql_store_result(handle.get()), mysql_free_result);
        return mysql_fetch_row(result.get())[0];
    }

    void writeDsn(const std::string& keys) { writeFile(DSN, "[corvo]\n" + keys); }

    std::string accessDenied(const std::string& user) {
        return "Unable to connect to Corvo Database: Access denied for user '" + user +
               "'@'localhost' (using password: YES)";
    }

    PanelDatabase panel;
    char reason[4097] = "";
};

}  // namespace corvo::mysql::test
