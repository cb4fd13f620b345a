// The exception of the database layer.

#pragma once

#include <exception>
#include <string>

struct st_mysql;

namespace corvo::mysql {

/// Every failure of the layer.
class mError : public std::exception {
public:
    explicit mError(std::string text);
    /// The client's last error on `handle` (null: none) and the context: "MySQL error <n>:
    /// <text><context>", or "Unknown error\n<context>" when the client gives no error number.
    mError(st_mysql* handle, const std::string& context);

    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

}  // namespace corvo::mysql
