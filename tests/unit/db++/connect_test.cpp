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
#include <memory>

#include "tests/support/capture.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/memory.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace {

// How the client library was last asked to connect.
struct ConnectCall {
    std::string host;
    std::string user;
    std::string password;
    std::string database;
    unsigned int port = 0;
    std::string socket;
    unsigned long flags = 0;
};

// What goes wrong, and what was seen. A real server offers no way to these failures.
struct Client {
    bool initFails = false;
    bool queryFailsSilently = false;
    unsigned int errorNumber = 0;  // instead of the handle's own
    int statError = 0;             // errno for the admin password file
    off_t formerSize = 0;          // of that file, in bytes, where it is not the present one
    int closed = 0;
    ConnectCall call;
};

Client client;

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

using corvo::test::openDescriptors;
using corvo::test::PanelDatabase;
using corvo::test::SandboxTest;
using corvo::test::StreamCapture;
using corvo::test::writeFile;

const std::string DSN = "/etc/vhc/private/dsn.ini";
const std::string SHADOW = "/etc/vhc/.vhc.shadow";

struct CloseHandle {
    void operator()(st_mysql* handle) const { mysql_close(handle); }
};
using Handle = std::unique_ptr<st_mysql, CloseHandle>;

using Connector = st_mysql*(char*, std::size_t) noexcept;

const struct {
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

class WithoutDsnKeys : public ConnectTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(WithoutDsnKeys, TakesTheDefaults) {
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

INSTANTIATE_TEST_SUITE_P(ConnectTest, WithoutDsnKeys,
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

// Failing connections

TEST_F(ConnectTest, NeedsAHandle) {
    client.initFails = true;
    expectRefusal("Unable to initialize MySQL connection structure: Cannot allocate memory");
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ConnectTest, IsRefusedWithAWrongPassword) {
    writeFile(SHADOW, "wrong\n");
    expectRefusal(accessDenied(panel.user()));
    EXPECT_EQ(client.closed, 5);
}

TEST_F(ConnectTest, NeedsTheDatabase) {
    panel.execute("GRANT ALL PRIVILEGES ON " + panel.name() + "gone.* TO '" + panel.user() +
                  "'@'localhost'");
    writeDsn("username = " + panel.user() + "\ndbname = " + panel.name() + "gone\n");
    expectRefusal("Unable to connect to Corvo Database: Unknown database '" + panel.name() +
                  "gone'");
}

TEST_F(ConnectTest, NeedsTheSocket) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectRefusal(
        "Unable to connect to Corvo Database: "
        "Can't connect to local server through socket '/etc/vhc/mysql.sock' (2)");
}

TEST_F(ConnectTest, CutsTheReasonToTheCallersBuffer) {
    std::filesystem::remove(SHADOW);
    char small[10] = "untouched";
    EXPECT_EQ(corvo_db_connect(small, sizeof small), nullptr);
    EXPECT_STREQ(small, "Unable to");
    EXPECT_EQ(corvo_db_connect(nullptr, 0), nullptr);
}

TEST_F(ConnectTest, ClosesAHandleOnWhichAnErrorIsSet) {
    client.errorNumber = 42;
    for (Connector* connector : {corvo_db_connect_raw, corvo_db_connect_ex, corvo_db_connect}) {
        client.closed = 0;
        EXPECT_EQ(connect(connector), nullptr);
        EXPECT_EQ(client.closed, 1);
        EXPECT_STREQ(reason, "");
    }
    EXPECT_NE(connect(corvo_db_connect_raw_ex), nullptr);
}

// Failing "SET NAMES utf8"

class SetNamesFails : public ConnectTest {
protected:
    // The account may run one more statement this hour, and that one is spent.
    SetNamesFails() {
        panel.execute("ALTER USER '" + panel.user() + "'@'localhost' WITH MAX_QUERIES_PER_HOUR 1");
        EXPECT_NE(connect(), nullptr);
        client.closed = 0;
    }

    std::string text() {
        return "DB error (set names query) 1226: User '" + panel.user() +
               "' has exceeded the 'max_queries_per_hour' resource (current value: 1)";
    }
};

TEST_F(SetNamesFails, GivesTheHandleInTheThirdLayer) {
    const Handle handle = connect(corvo_db_connect_ex);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(mysql_errno(handle.get()), 1226U);
    EXPECT_EQ(reason, text());
}

TEST_F(SetNamesFails, ClosesTheHandleInTheFourthLayer) {
    for (Connector* connector : {corvo_db_connect, db_connect_nothrow}) {
        client.closed = 0;
        EXPECT_EQ(connect(connector), nullptr);
        EXPECT_EQ(client.closed, 1);
        EXPECT_EQ(reason, text());
    }
}

TEST_F(SetNamesFails, DoesNotTouchTheLayersBelow) {
    EXPECT_NE(connect(corvo_db_connect_raw), nullptr);
    EXPECT_STREQ(reason, "");
}

TEST_F(ConnectTest, KeepsAHandleWhoseSetNamesFailedWithoutANumber) {
    client.queryFailsSilently = true;
    for (Connector* connector : {corvo_db_connect_ex, corvo_db_connect}) {
        reason[0] = '\0';
        EXPECT_NE(connect(connector), nullptr);
        EXPECT_STREQ(reason, "DB error (set names query): unknown error");
    }
}

// corvo_db_attempt

class AttemptTest : public ConnectTest {
protected:
    /// Expects that an attempt fails like this and prints nothing.
    static void expectFailure(unsigned int number, const std::string& text) {
        const StreamCapture nothingIsPrinted;
        db_connect_failure failure{99, "of an attempt before"};
        EXPECT_EQ(Handle(corvo_db_attempt(failure)), nullptr);
        EXPECT_EQ(failure.number, number);
        EXPECT_EQ(failure.reason, text);
    }
};

TEST_F(AttemptTest, GivesAHandleThatSpeaksUtf8) {
    db_connect_failure failure{};
    const Handle handle(corvo_db_attempt(failure));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(answer(handle, "SELECT @@character_set_client"), "utf8mb3");
}

TEST_F(AttemptTest, TellsTheClientsErrorNumber) {
    writeDsn("username = someone\n");
    expectFailure(1045, accessDenied("someone"));
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectFailure(2002,
                  "Unable to connect to Corvo Database: Can't connect to local server through "
                  "socket '/etc/vhc/mysql.sock' (2)");
}

TEST_F(AttemptTest, TellsNoNumberWhenItIsNotTheClientThatFails) {
    client.initFails = true;
    expectFailure(0, "Unable to initialize MySQL connection structure: Cannot allocate memory");
    std::filesystem::remove(SHADOW);
    expectFailure(0, "Unable to open admin password file: No such file or directory");
}

TEST_F(AttemptTest, TellsTheNumberOfAHandleThatCameWithAnError) {
    client.errorNumber = 42;
    expectFailure(42, "");
}

TEST_F(SetNamesFails, HasItsNumberInAnAttempt) {
    db_connect_failure failure{};
    EXPECT_EQ(corvo_db_attempt(failure), nullptr);
    EXPECT_EQ(failure.number, 1226U);
    EXPECT_EQ(failure.reason, text());
}

TEST(DbConnectFailure, MayPassByItselfWhenTheServerIsBusyOrAway) {
    for (const unsigned int number : {1040U, 1203U, 1226U, 2002U, 2003U, 2006U, 2013U, 2055U})
        EXPECT_TRUE(may_pass_by_itself({number, ""})) << number;
    for (const unsigned int number : {0U, 1044U, 1045U, 1049U, 1053U, 1129U, 2001U, 2005U, 2012U})
        EXPECT_FALSE(may_pass_by_itself({number, ""})) << number;
}

// db_connect

TEST_F(ConnectTest, PrintsNothingWhenItConnects) {
    const StreamCapture streams;
    const Handle handle(db_connect());
    EXPECT_NE(handle, nullptr);
}

TEST_F(ConnectTest, PrintsTheReasonAndErrnoOnBothStreams) {
    std::filesystem::remove(SHADOW);
    StreamCapture streams;

    EXPECT_EQ(db_connect(), nullptr);

    const std::string text =
        "Unable to open admin password file: No such file or directory\n"
        "System error 2: No such file or directory\n";
    EXPECT_EQ(streams.out(), text);
    EXPECT_EQ(streams.err(), text);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ConnectTest, PrintsAReasonWithPercentSignsAsItIs) {
    writeDsn("username = %s%n\n");
    StreamCapture streams;

    EXPECT_EQ(db_connect(), nullptr);

    // The client library may leave an errno behind.
    const std::string out = streams.out();
    EXPECT_EQ(out.substr(0, out.find('\n')), accessDenied("%s%n"));
    EXPECT_EQ(streams.err(), out);
}

}  // namespace
}  // namespace corvo::mysql::test
