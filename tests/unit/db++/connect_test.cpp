#include "lib/db++/connect.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/unit/db++/connect_fixture.h"

namespace {

using corvo::mysql::test::client;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in front of the libraries' functions of the same names.
extern "C" {

MYSQL* mysql_init(MYSQL* handle) {
    return client.initFails ? nullptr : real<decltype(mysql_init)>("mysql_init")(handle);
}

MYSQL* mysql_real_connect(MYSQL* handle, const char* host, const char* user, const char* password,
                          const char* database, unsigned int port, const char* socket,
                          unsigned long flags) {
    const auto text = [](const char* s) { return s == nullptr ? "(null)" : s; };
    client.call = {text(host), text(user),   text(password), text(database),
                   port,       text(socket), flags};
    return real<decltype(mysql_real_connect)>("mysql_real_connect")(handle, host, user, password,
                                                                    database, port, socket, flags);
}

int mysql_query(MYSQL* handle, const char* statement) {
    return client.queryFailsSilently
               ? 1
               : real<decltype(mysql_query)>("mysql_query")(handle, statement);
}

unsigned int mysql_errno(MYSQL* handle) {
    return client.errorNumber != 0 ? client.errorNumber
                                   : real<decltype(mysql_errno)>("mysql_errno")(handle);
}

void mysql_close(MYSQL* handle) {
    ++client.closed;
    real<decltype(mysql_close)>("mysql_close")(handle);
}

int stat(const char* path, struct stat* status) noexcept {
    if (client.statError != 0 && std::string(path) == "/etc/vhc/.vhc.shadow") {
        errno = client.statError;
        return -1;
    }
    const int result = ::fstatat(AT_FDCWD, path, status, 0);
    if (result == 0 && client.formerSize != 0 && std::string(path) == "/etc/vhc/.vhc.shadow")
        status->st_size = client.formerSize;
    return result;
}

// An allocation that is too large fails under AddressSanitizer too, instead of ending the process.
const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

}  // extern "C"
namespace corvo::mysql::test {
namespace {

// What is asked of the client library

TEST_F(ConnectTest, ConnectsWithThePanelsCredentials) {
    for (const auto& [name, connector] : CONNECTORS) {
        const Handle handle = connect(connector);
        ASSERT_NE(handle, nullptr) << name << ": " << reason;
        EXPECT_EQ(answer(handle, "SELECT CONCAT(USER(), ' ', DATABASE())"),
                  panel.user() + "@localhost " + panel.name())
            << name;
        EXPECT_STREQ(reason, "") << name;
    }
}

TEST_F(ConnectTest, SpeaksUtf8FromTheThirdLayerOn) {
    const std::string question = "SELECT @@character_set_client";
    EXPECT_NE(answer(connect(corvo_db_connect_raw_ex), question), "utf8mb3");
    EXPECT_NE(answer(connect(corvo_db_connect_raw), question), "utf8mb3");
    EXPECT_EQ(answer(connect(corvo_db_connect_ex), question), "utf8mb3");
    EXPECT_EQ(answer(connect(corvo_db_connect), question), "utf8mb3");
    EXPECT_EQ(answer(connect(db_connect_nothrow), question), "utf8mb3");
}

TEST_F(ConnectTest, TakesEveryKeyOfTheDsnFile) {
    writeDsn("host = 127.0.0.1\nport = 1\nusername = someone\npassword = let me in\ndbname = it\n");
    connect();
    EXPECT_EQ(client.call.host, "127.0.0.1");
    EXPECT_EQ(client.call.port, 1U);
    EXPECT_EQ(client.call.user, "someone");
    EXPECT_EQ(client.call.password, "let me in");
    EXPECT_EQ(client.call.database, "it");
    EXPECT_EQ(client.call.socket, "/etc/vhc/mysql.sock");
    EXPECT_EQ(client.call.flags, 0U);
}

class WithoutDsnKeysTest : public ConnectTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(WithoutDsnKeysTest, TakesTheDefaults) {
    if (GetParam().empty())
        std::filesystem::remove(DSN);
    else
        writeFile(DSN, GetParam());
    expectRefusal(accessDenied("admin"));
    EXPECT_EQ(client.call.host, "localhost");
    EXPECT_EQ(client.call.port, 0U);
    EXPECT_EQ(client.call.database, "vhc");
    EXPECT_EQ(client.call.socket, "/etc/vhc/mysql.sock");
}

INSTANTIATE_TEST_SUITE_P(ConnectTest, WithoutDsnKeysTest,
                         ::testing::Values("", "\n", "username = someone\n", "[corvo]\n; user\n",
                                           "[other]\nusername = someone\nport = 7\n",
                                           "[corvo]\nUsername = someone\nport\n"));

TEST_F(ConnectTest, TakesTheDefaultsWhenTheDsnFileIsADirectory) {
    std::filesystem::remove(DSN);
    corvo::test::makeDirectory(DSN);
    expectRefusal(accessDenied("admin"));
}

TEST_F(ConnectTest, ReadsThePortAsFarAsItIsDecimal) {
    const struct {
        const char* written;
        unsigned int port;
    } cases[] = {{"3307", 3307}, {"33x", 33}, {"+5", 5}, {"0x10", 0}, {"none", 0}, {"", 0}};
    for (const auto& [written, port] : cases) {
        client.call.port = 99;
        writeDsn("username = nobody\nport = " + std::string(written) + "\n");
        connect();
        EXPECT_EQ(client.call.port, port) << written;
    }
}

TEST_F(ConnectTest, TakesAnEmptyValueAsAValue) {
    std::filesystem::remove(SHADOW);
    writeDsn("host =\nusername =\npassword =\ndbname =\n");
    connect();
    EXPECT_EQ(client.call.host, "");
    EXPECT_EQ(client.call.user, "");
    EXPECT_EQ(client.call.password, "");
    EXPECT_EQ(client.call.database, "");
}

// The admin password

TEST_F(ConnectTest, TakesTheFirstLineOfThePasswordFile) {
    const std::string longLine(5000, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"secret\n", "secret"},
        {"secret", "secret"},
        {"s", "s"},
        {"first\nsecond\n", "first"},
        {"first\nsecond", "first"},
        {"two\n\n", "two"},
        {" \tblanks stay \t\n", " \tblanks stay \t"},
        {"secret\r\n", "secret\r"},
        {"no; comment # here\n", "no; comment # here"},
        {"\n", ""},
        {"\nsecond\n", ""},
        {"", ""},
        {longLine + "\n", longLine},
        {longLine, longLine},
    };
    for (const auto& [contents, password] : cases) {
        writeFile(SHADOW, contents);
        client.call.password = "none was given";
        connect();
        EXPECT_EQ(client.call.password, password) << contents;
    }
}

TEST_F(ConnectTest, NeverOpensThePasswordFileWhenTheDsnFileHasAPassword) {
    // Who opened the pipe for reading would hang.
    std::filesystem::remove(SHADOW);
    ASSERT_EQ(::mkfifo(SHADOW.c_str(), 0600), 0);
    writeDsn("username = someone\npassword = a;b\n");
    connect();
    EXPECT_EQ(client.call.password, "a");

    std::filesystem::remove(SHADOW);
    connect();
    EXPECT_EQ(client.call.user, "someone");
}

TEST_F(ConnectTest, NeedsThePasswordFile) {
    std::filesystem::remove(SHADOW);
    expectRefusal("Unable to open admin password file: No such file or directory");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ConnectTest, CannotReadADirectoryAsPasswordFile) {
    std::filesystem::remove(SHADOW);
    corvo::test::makeDirectory(SHADOW);
    expectRefusal("Unable to read admin password file: Is a directory");
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(ConnectTest, NeedsThePasswordFilesSize) {
    client.statError = EIO;
    expectRefusal("Unable to get admin password file stat: Input/output error");
    EXPECT_EQ(errno, EIO);
}

TEST_F(ConnectTest, TakesNoEmptyPasswordFromAFileThatWasEmptiedMeanwhile) {
    writeFile(SHADOW, "");
    client.formerSize = 7;
    expectRefusal("Unable to read admin password file: No data available");
    EXPECT_EQ(errno, ENODATA);
}

TEST_F(ConnectTest, RefusesAPasswordFileThatNoMemoryHolds) {
    ASSERT_EQ(::truncate(SHADOW.c_str(), off_t{1} << 60), 0);
    expectRefusal("Unable to allocate memory for password");
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ConnectTest, TakesNoDefaultsWithoutMemoryForWhatTheDsnFileSays) {
    corvo::test::requireExhaustibleMemory();
    writeFile(DSN, "[corvo]\nhost = elsewhere\n");
    const auto result = corvo::test::runForked([&] {
        corvo::test::exhaustMemory();
        const bool refused = corvo_db_connect_raw_ex(reason, sizeof reason) == nullptr;
        const int error = errno;
        (void)std::fprintf(stderr, "\n%s, %d", reason, error);
        std::exit(refused ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "\nUnable to allocate memory for password, 12");
}

TEST_F(ConnectTest, TakesNoDefaultsWhenThatCannotBeReportedEither) {
    const auto result = corvo::test::runForked([&] {
        ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        corvo::test::failSystemCall(SYS_openat, ENOMEM);
        const bool refused = corvo_db_connect_raw_ex(reason, sizeof reason) == nullptr;
        (void)std::printf("%s, %d", reason, refused ? errno : 0);
    });
    EXPECT_EQ(result.out, "Unable to allocate memory for password, 12");
}

}  // namespace
}  // namespace corvo::mysql::test
