#include "lib/db++/connect.h"

#include <fcntl.h>
#include <mysql.h>
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

constexpr const char* DSN_FILE = "/etc/vhc/private/dsn.ini";
constexpr const char* ADMIN_PASSWORD_FILE = "/etc/vhc/.vhc.shadow";

// Enough for every message here, the client's own texts included.
constexpr std::size_t MESSAGE_SIZE = 4097;

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

// Writes the reason of a failure for the caller; errno stays what it was.
__attribute__((format(printf, 3, 4))) void explain(char* errbuf, std::size_t size,
                                                   const char* format, ...) noexcept {
    const ErrnoGuard keepErrno;
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(errbuf, size, format, arguments);
    va_end(arguments);
}

// Fills in what the DSN file says. False with ENOMEM when there was no memory to find that out.
bool readDsn(Credentials& credentials) noexcept {
    const ini_value wanted[] = {{"host", credentials.host},
                                {"port", credentials.port},
                                {"username", credentials.username},
                                {"password", credentials.password},
                                {"dbname", credentials.dbname}};
    return get_ini_conf_vars(DSN_FILE, "corvo", wanted) == 0 || errno != ENOMEM;
}

void explainNoMemory(char* errbuf, std::size_t size) noexcept {
    explain(errbuf, size, "Unable to allocate memory for password");
}

const char* valueOr(const UniqueCString& value, const char* fallback) noexcept {
    return value ? value.get() : fallback;
}

// The first line of the admin password file. Null on failure, explained and with errno.
UniqueCString readAdminPassword(char* errbuf, std::size_t size) noexcept {
    const UniqueFd file(::open(ADMIN_PASSWORD_FILE, O_RDONLY | O_CLOEXEC));  // root-owned path
    if (!file) {
        explain(errbuf, size, "Unable to open admin password file: %s", std::strerror(errno));
        return nullptr;
    }
    struct stat status {};
    if (::stat(ADMIN_PASSWORD_FILE, &status) != 0) {
        explain(errbuf, size, "Unable to get admin password file stat: %s", std::strerror(errno));
        return nullptr;
    }
    const auto length = static_cast<std::size_t>(status.st_size);
    UniqueCString password(static_cast<char*>(std::calloc(length + 1, 1)));
    if (!password) {
        explainNoMemory(errbuf, size);
        return nullptr;
    }
    const ssize_t got = read_fully(file.get(), password.get(), length);
    if (got < 0 || (got == 0 && length > 0)) {  // not to be read, or emptied just now
        if (got == 0)
            errno = ENODATA;
        explain(errbuf, size, "Unable to read admin password file: %s", std::strerror(errno));
        return nullptr;
    }
    password.get()[std::strcspn(password.get(), "\n")] = '\0';
    return password;
}

// False on failure, explained and with errno.
bool readCredentials(Credentials& credentials, char* errbuf, std::size_t size) noexcept {
    if (!readDsn(credentials)) {
        explainNoMemory(errbuf, size);
        return false;
    }
    if (!credentials.password)
        credentials.password = readAdminPassword(errbuf, size);
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
st_mysql* closeOnError(st_mysql* handle) noexcept {
    UniqueHandle owned(handle);
    if (owned && mysql_errno(handle) != 0)
        owned.reset();
    return owned.release();
}

}  // namespace

st_mysql* corvo_db_connect_raw_ex(char* errbuf, std::size_t size) noexcept {
    Credentials credentials;
    if (!readCredentials(credentials, errbuf, size))
        return nullptr;
    UniqueHandle handle = newHandle();
    if (!handle) {
        errno = ENOMEM;
        explain(errbuf, size, "Unable to initialize MySQL connection structure: %s",
                std::strerror(ENOMEM));
        return nullptr;
    }
    if (!connectWith(credentials, handle.get())) {
        explain(errbuf, size, "Unable to connect to Corvo Database: %s", mysql_error(handle.get()));
        return nullptr;
    }
    return handle.release();
}

st_mysql* corvo_db_connect_raw(char* errbuf, std::size_t size) noexcept {
    return closeOnError(corvo_db_connect_raw_ex(errbuf, size));
}

st_mysql* corvo_db_connect_ex(char* errbuf, std::size_t size) noexcept {
    st_mysql* handle = corvo_db_connect_raw(errbuf, size);
    if (handle == nullptr || speakUtf8(handle))
        return handle;
    const unsigned int number = mysql_errno(handle);
    if (number == 0)
        explain(errbuf, size, "DB error (%s): unknown error", "set names query");
    else
        explain(errbuf, size, "DB error (%s) %u: %s", "set names query", number,
                mysql_error(handle));
    return handle;
}

st_mysql* corvo_db_connect(char* errbuf, std::size_t size) noexcept {
    return closeOnError(corvo_db_connect_ex(errbuf, size));
}

st_mysql* db_connect_nothrow(char* errbuf, std::size_t size) noexcept {
    return corvo_db_connect(errbuf, size);
}

st_mysql* db_connect() noexcept {
    char message[MESSAGE_SIZE] = "";
    st_mysql* handle = db_connect_nothrow(message, sizeof message);
    if (handle == nullptr)
        messlog2(0, 0, "%s", message);
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
