#include "lib/db++/connection.h"

#include <mysql.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <string_view>
#include <utility>

#include "lib/db++/connect.h"
#include "utils/guards.h"

namespace corvo::mysql {

namespace {

// The first number of the client's words about the last statement, such as "Rows matched: 2
// Changed: 0  Warnings: 0"; 0 when there is none.
unsigned long long firstNumberOfInfo(st_mysql* handle) {
    const char* info = mysql_info(handle);
    if (info == nullptr)
        return 0;
    return std::strtoull(info + std::strcspn(info, "0123456789"), nullptr, 10);
}

std::size_t lengthOr(std::size_t length, const char* text) {
    return length != 0 ? length : std::strlen(text);
}

// The handle, unless it is null.
st_mysql* demand(st_mysql* handle) {
    if (handle == nullptr)
        throw mError("connection failed");
    return handle;
}

std::string_view baseName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

Connection::Connection(bool open_now) {
    if (open_now)
        open();
}

Connection::Connection(st_mysql* openHandle, bool closesIt) : handle(openHandle), owns(closesIt) {}

Connection Connection::owning(st_mysql* opened) {
    return {demand(opened), /*closesIt=*/true};
}

Connection::~Connection() {
    const ErrnoGuard keepErrno;
    if (owns && handle != nullptr)
        mysql_close(handle);
}

void Connection::open() {
    if (handle == nullptr)
        handle = demand(db_connect());
}

void Connection::reopenIfLost() noexcept {
    if (!owns || handle == nullptr)
        return;
    const ErrnoGuard keepErrno;
    if (mysql_ping(handle) == 0)
        return;
    if (st_mysql* fresh = corvo_db_connect_again(handle))
        mysql_close(std::exchange(handle, fresh));
}

std::string Connection::escape(const char* text, std::size_t length) {
    if (handle == nullptr)
        throw mError(handle, " escaping a text");
    length = lengthOr(length, text);
    std::string escaped;
    if (length > (escaped.max_size() - 1) / 2)
        throw std::bad_alloc();
    escaped.resize(2 * length + 1);
    escaped.resize(mysql_real_escape_string(handle, escaped.data(), text, length));
    return escaped;
}

std::string Connection::escape_name(const char* text, std::size_t length) {
    length = lengthOr(length, text);
    std::string escaped;
    escaped.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        if (text[i] == '`')
            escaped += '`';
        escaped += text[i];
    }
    return escaped;
}

// Made at the first piece: most connections are closed without a statement, and a stream's locale
// takes 1,500 instructions. Half a statement must never run: a stream without memory throws.
std::ostringstream& Connection::statement() {
    if (!query)
        query.emplace().exceptions(std::ios_base::badbit);
    return *query;
}

void Connection::append(const char* text, std::size_t length) {
    try {
        write(text, length);
    } catch (...) {
        query.reset();
        throw;
    }
}

void Connection::write(const char* text, std::size_t length) {
    switch (std::exchange(mode, MODE_RAW)) {
        case MODE_VALUE:
            statement() << escape(text, length);
            break;
        case MODE_NAME:
            statement() << escape_name(text, length);
            break;
        case MODE_RAW:
            statement().write(text, static_cast<std::streamsize>(length));
            break;
        default:
            break;
    }
}

Connection& Connection::operator<<(const char* text) {
    if (text != nullptr)
        append(text, std::strlen(text));
    else if (std::exchange(mode, MODE_RAW) == MODE_RAW)
        statement().setstate(std::ios_base::failbit);
    return *this;
}

Connection& Connection::operator<<(const std::string& text) {
    append(text.data(), text.size());
    return *this;
}

Connection& Connection::operator<<(int number) {
    return *this << std::to_string(number);
}

Connection& Connection::operator<<(unsigned long long number) {
    return *this << std::to_string(number);
}

Connection& Connection::operator<<(double number) {
    return *this << std::to_string(number);
}

unsigned long long Connection::operator<<(Query::exec_t) {
    run(takeStatement());
    const unsigned long long count = firstNumberOfInfo(handle);
    return count != 0 ? count : mysql_affected_rows(handle);
}

Result Connection::operator<<(Query::fetch_t) {
    const std::string statement = takeStatement();
    run(statement);
    MYSQL_RES* stored = mysql_store_result(handle);
    if (stored == nullptr)
        throw mError(handle, " fetching result of query: " + statement);
    return Result(stored);
}

std::string Connection::takeStatement() {
    std::string text = query ? std::move(*query).str() : std::string();
    query.reset();
    mode = MODE_RAW;
    return text;
}

void Connection::run(const std::string& statement) {
    if (handle == nullptr || mysql_real_query(handle, statement.data(), statement.size()) != 0)
        throw mError(handle, " executing query: " + statement);
}

void Connection::test() {
    Connection connection(/*open_now=*/true);
    for (const char* text : {"aaaa", "a`aaa", "a``aaa", "a``aa`a"})
        std::cerr << "static void corvo::mysql::Connection::test()(" << baseName(__FILE__) << ':'
                  << __LINE__ << ")connection.escape_name(\"" << text
                  << "\")=" << connection.escape_name(text) << '\n';
}

}  // namespace corvo::mysql
