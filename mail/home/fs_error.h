// A failed operation on mail storage.

#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace corvo::mail {

/// `operation` is the name of the call that failed ("chown", "chmod" or "rename"), `error` its
/// errno.
class FSError : public std::filesystem::filesystem_error {
public:
    FSError(const std::string& operation, const std::filesystem::path& path, int error)
        : filesystem_error(operation, path, std::error_code(error, std::system_category())) {}

    FSError(const std::string& operation, const std::filesystem::path& path1,
            const std::filesystem::path& path2, int error)
        : filesystem_error(operation, path1, path2,
                           std::error_code(error, std::system_category())) {}
};

}  // namespace corvo::mail
