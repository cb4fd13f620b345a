#include "lib/db++/connect.h"

#include <errmsg.h>
#include <fcntl.h>
#include <mysql.h>
#include <mysqld_error.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/files.h"
#include "utils/guards.h"
#include "utils/ini_file.h"
#include "utils/messlog.h"
#include "utils/runtime_config.h"

namespace {

using corvo::ErrnoGuard;
using corvo::UniqueCString;
using corvo::UniqueFd;

constexpr const char* SET_NAMES = "set names query";  // as messages call it

struct HandleCloser {
    void operator()(st_mysql* handle) const noexcept {
        const ErrnoGuard keepErrno;
        mysql_close(handle);
    }
};
using UniqueHandle = std::unique_ptr<st_mysql, HandleCloser>;

struct Credentials {
    UniqueCString host;
    UniqueCString port;
    UniqueCString username;
    UniqueCString password;
    UniqueCString dbname;
};

// Where a failure is explained.
struct Failure {
    char* errbuf;
    std::size_t size;
    unsigned int number = 0;  // the client's error number; 0 when another call failed
};

// Writes the reason of a failure for the caller; errno stays what it was.
__attribute__((format(printf, 2, 3))) void explain(const Failure& failure, const char* format,
                                                   ...) noexcept {
    const ErrnoGuard keepErrno;
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(failure.errbuf, failure.size, format, arguments);
    va_end(arguments);
}

// Fills in what the DSN file says. False with ENOMEM when there was no memory to find that out.
bool readDsn(Credentials& credentials) noexcept {
    const ini_value wanted[] = {{"host", credentials.host},
                                {"port", credentials.port},
                                {"username", credentials.username},
                                {"password", credentials.password},
                                {"dbname", credentials.dbname}};
    return get_ini_conf_vars(DSN_FILE, DSN_SECTION, wanted) == 0 || errno != ENOMEM;
}

void explainNoMemory(const Failure& failure) noexcept {
    explain(failure, "Unable to allocate memory for password");
}

const char* valueOr(const UniqueCString& value, const char* fallback) noexcept {
    return value ? value.get() : fallback;
}

// The first line of the admin password file. Null on failure, explained and with errno.
UniqueCString readAdminPassword(const Failure& failure) noexcept {
    const UniqueFd file(::open(ADMIN_PASSWORD_FILE, O_RDONLY | O_CLOEXEC));  // root-owned path
    if (!file) {
        explain(failure, "Unable to open admin password file: %s", std::strerror(errno));
        return nullptr;
    }
    struct stat status = {};
    if (::stat(ADMIN_PASSWORD_FILE, &status) != 0) {
        explain(failure, "Unable to get admin password file stat: %s", std::strerror(errno));
        return nullptr;
    }
    const auto length = static_cast<std::size_t>(status.st_size);
    UniqueCString password(static_cast<char*>(std::calloc(length + 1, 1)));
    if (!password) {
        explainNoMemory(failure);
        return nullptr;
    }
    const ssize_t got = read_fully(file.get(), password.get(), length);
    if (got < 0 || (got == 0 && length > 0)) {  // not to be read, or emptied just now
        if (got == 0)
            errno = ENODATA;
        explain(failure, "Unable to read admin password file: %s", std::strerror(errno));
        return nullptr;
    }
    password.get()[std::strcspn(password.get(), "\n")] = '\0';
    return password;
}

// False on failure, explained and with errno.
bool readCredentials(Credentials& credentials, const Failure& failure) noexcept {
    if (!readDsn(credentials)) {
        explainNoMemory(failure);
        return false;
    }
    if (!credentials.password)
        credentials.password = readAdminPassword(failure);
    return credentials.password != nullptr;
}

// A handle that answers no request of a server's for a file of this machine. Null when there is no
// memory.
UniqueHandle newHandle() noexcept {
    UniqueHandle handle(mysql_init(nullptr));
    constexpr unsigned int OFF = 0;
    if (handle)
        mysql_options(handle.get(), MYSQL_OPT_LOCAL_INFILE, &OFF);
    return handle;
}

bool speakUtf8(st_mysql* handle) noexcept {
    return mysql_query(handle, "SET NAMES utf8") == 0;
}

bool connectWith(const Credentials& credentials, st_mysql* handle) noexcept {
    const long port = std::strtol(valueOr(credentials.port, "0"), nullptr, 10);
    return mysql_real_connect(handle, valueOr(credentials.host, "localhost"),
                              valueOr(credentials.username, "admin"), credentials.password.get(),
                              valueOr(credentials.dbname, "vhc"), static_cast<unsigned int>(port),
                              vhcConfGetDefaultByIndex(MYSQL_SOCKET), 0) != nullptr;
}

// A handle on which an error is set is closed; the answer is then null.
UniqueHandle closeOnError(UniqueHandle handle, Failure& failure) noexcept {
    if (handle)
        failure.number = mysql_errno(handle.get());
    if (failure.number != 0)
        handle.reset();
    return handle;
}

// The layers of the family; each explains its failures.

UniqueHandle connectRawEx(Failure& failure) noexcept {
    Credentials credentials;
    if (!readCredentials(credentials, failure))
        return nullptr;
    UniqueHandle handle = newHandle();
    if (!handle) {
        errno = ENOMEM;
        explain(failure, "Unable to initialize MySQL connection structure: %s",
                std::strerror(ENOMEM));
        return nullptr;
    }
    if (!connectWith(credentials, handle.get())) {
        failure.number = mysql_errno(handle.get());
        explain(failure, "Unable to connect to Corvo Database: %s", mysql_error(handle.get()));
        return nullptr;
    }
    return handle;
}

UniqueHandle connectRaw(Failure& failure) noexcept {
    return closeOnError(connectRawEx(failure), failure);
}

UniqueHandle connectEx(Failure& failure) noexcept {
    UniqueHandle handle = connectRaw(failure);
    if (!handle || speakUtf8(handle.get()))
        return handle;
    const unsigned int number = mysql_errno(handle.get());
    if (number == 0)
        explain(failure, "DB error (%s): unknown error", SET_NAMES);
    else
        explain(failure, "DB error (%s) %u: %s", SET_NAMES, number, mysql_error(handle.get()));
    return handle;
}

UniqueHandle connect(Failure& failure) noexcept {
    return closeOnError(connectEx(failure), failure);
}

// A layer for a caller that wants the reason alone.
st_mysql* runLayer(UniqueHandle (*layer)(Failure&), char* errbuf, std::size_t size) noexcept {
    Failure failure{errbuf, size};
    return layer(failure).release();
}

}  // namespace

st_mysql* corvo_db_connect_raw_ex(char* errbuf, std::size_t size) noexcept {
    return runLayer(connectRawEx, errbuf, size);
}

st_mysql* corvo_db_connect_raw(char* errbuf, std::size_t size) noexcept {
    return runLayer(connectRaw, errbuf, size);
}

st_mysql* corvo_db_connect_ex(char* errbuf, std::size_t size) noexcept {
    return runLayer(connectEx, errbuf, size);
}

st_mysql* corvo_db_connect(char* errbuf, std::size_t size) noexcept {
    return runLayer(connect, errbuf, size);
}

st_mysql* db_connect_nothrow(char* errbuf, std::size_t size) noexcept {
    return corvo_db_connect(errbuf, size);
}

st_mysql* corvo_db_attempt(db_connect_failure& failure) noexcept {
    failure.reason[0] = '\0';
    Failure told{failure.reason, sizeof failure.reason};
    UniqueHandle handle = connect(told);
    failure.number = told.number;
    return handle.release();
}

void print_db_connect_failure(const db_connect_failure& failure) noexcept {
    messlog2(0, 0, "%s", failure.reason);
}

bool may_pass_by_itself(const db_connect_failure& failure) noexcept {
    switch (failure.number) {
        case ER_CON_COUNT_ERROR:
        case ER_TOO_MANY_USER_CONNECTIONS:
        case ER_USER_LIMIT_REACHED:
        case CR_CONNECTION_ERROR:
        case CR_CONN_HOST_ERROR:
        case CR_SERVER_GONE_ERROR:
        case CR_SERVER_LOST:
        case CR_SERVER_LOST_EXTENDED:
            return true;
        default:
            return false;
    }
}

st_mysql* db_connect() noexcept {
    db_connect_failure failure;
    st_mysql* handle = corvo_db_attempt(failure);
    if (handle == nullptr)
        print_db_connect_failure(failure);
    return handle;
}

st_mysql* corvo_db_connect_again(const st_mysql* lost) noexcept {
    UniqueHandle handle = newHandle();
    if (handle &&
        mysql_real_connect(handle.get(), lost->host, lost->user, lost->passwd, lost->db, lost->port,
                           lost->unix_socket, 0) != nullptr &&
        speakUtf8(handle.get()))
        return handle.release();
    return nullptr;
}
