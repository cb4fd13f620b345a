#include "utils/format.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "utils/messlog.h"

char* asprintf_safe(const char* format, ...) noexcept {
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = ::vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0)
        return text;
    messlog2(1, 1, "Cannot allocate memory: %s", std::strerror(errno));
    return nullptr;
}

const char* filetype_to_string(mode_t mode) noexcept {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "regular file";
        case S_IFDIR:
            return "directory";
        case S_IFLNK:
            return "symbolic link";
        case S_IFBLK:
            return "block device";
        case S_IFCHR:
            return "character device";
        case S_IFIFO:
            return "fifo";
        case S_IFSOCK:
            return "socket";
        default:
            return "unknown";
    }
}
