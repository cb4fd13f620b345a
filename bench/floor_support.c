// What all parts of the floor program use.

#include <errno.h>
#include <fcntl.h>
#include <idna.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "bench/floor.h"

_Noreturn void fail(const char* what, const char* reason) {
    dprintf(STDERR_FILENO, "floor: %s: %s\n", what, reason);
    exit(1);
}

int check(int result, const char* what) {
    if (result < 0)
        fail(what, strerror(errno));
    return result;
}

void format(char* buffer, size_t size, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const int length = vsnprintf(buffer, size, text, arguments);
    va_end(arguments);
    if (length < 0 || (size_t)length >= size)
        fail(text, "too long");
}

bool readText(int directory, const char* name, char text[static TEXT_SIZE]) {
    const int file = openat(directory, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0 && errno == ENOENT)
        return false;
    const int length = check((int)read(check(file, name), text, TEXT_SIZE), name);
    if (length == TEXT_SIZE)
        fail(name, "too long");
    text[length] = '\0';
    close(file);
    return true;
}

struct Owner lookUpPopuser(void) {
    const struct passwd* const account = getpwnam("popuser");
    if (account == NULL)
        fail("popuser", "no such account");
    return (struct Owner){account->pw_uid, account->pw_gid};
}

void toAscii(const char* address, char* ascii, size_t size) {
    const char* const domain = strchr(address, '@') + 1;
    char* converted = NULL;
    if (idna_to_ascii_8z(domain, &converted, 0) != IDNA_SUCCESS)
        fail(address, "cannot be converted");
    format(ascii, size, "%.*s%s", (int)(domain - address), address, converted);
    free(converted);
}
