// The plain loop that counting a mailbox comes down to: count_loop MAILDIR
//
// Prints bytes and messages of "new" and "cur". A name that carries its size (",S=<bytes>" before
// the end or a ":") saves the look at the file. It looks at no further folder, follows links of
// anybody, checks no sum for overflow and writes no maildirsize.

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static long long bytes;
static long long messages;

// The size in the name, or -1.
static long long namedSize(const char* name) {
    for (const char* at = strstr(name, ",S="); at != NULL; at = strstr(at + 1, ",S=")) {
        char* end = NULL;
        const long long size = strtoll(at + 3, &end, 10);
        if (end != at + 3 && (*end == '\0' || *end == ':'))
            return size;
    }
    return -1;
}

static void countMessage(int directory, const char* name) {
    long long size = namedSize(name);
    struct stat status;
    if (size < 0) {
        if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return;
        size = status.st_size;
    }
    bytes += size;
    ++messages;
}

static void countDirectory(const char* path) {
    DIR* const directory = opendir(path);
    if (directory == NULL)
        return;
    for (const struct dirent* entry = readdir(directory); entry != NULL; entry = readdir(directory))
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            countMessage(dirfd(directory), entry->d_name);
    closedir(directory);
}

int main(int argc, char** argv) {
    if (argc != 2 || chdir(argv[1]) != 0) {
        fprintf(stderr, "Usage: %s MAILDIR\n", argv[0]);
        return 2;
    }
    countDirectory("new");
    countDirectory("cur");
    printf("%lld %lld\n", bytes, messages);
    return 0;
}
