#include "lib/db++/error.h"

#include <mysql.h>

#include <utility>

namespace corvo::mysql {

namespace {

std::string describeLastError(st_mysql* handle, const std::string& context) {
    const unsigned int number = handle != nullptr ? mysql_errno(handle) : 0;
    if (number == 0)
        return "Unknown error\n" + context;
    return "MySQL error " + std::to_string(number) + ": " + mysql_error(handle) + context;
}

}  // namespace

mError::mError(std::string text) : message_(std::move(text)) {}

mError::mError(st_mysql* handle, const std::string& context)
    : message_(describeLastError(handle, context)) {}

}  // namespace corvo::mysql
