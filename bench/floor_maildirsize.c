// The maildirsize of the floor program, and the counting that it takes.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <idna.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "bench/floor.h"

// How much is read of a directory at once.
#define DIRECTORY_BLOCK 32768

// A directory whose entries are being read.
struct Entries {
    int file;
    ssize_t filled;
    ssize_t position;
    _Alignas(struct dirent64) char block[DIRECTORY_BLOCK];
};

static bool openEntries(struct Entries* entries, int parent, const char* path) {
    entries->file = openat(parent, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    entries->filled = 0;
    entries->position = 0;
    return entries->file >= 0;
}

// The next entry but "." and "..", or null after the last one, and the directory is closed.
static const struct dirent64* nextEntry(struct Entries* entries) {
    for (;;) {
        if (entries->position == entries->filled) {
            entries->filled = getdents64(entries->file, entries->block, sizeof entries->block);
            entries->position = 0;
        }
        if (check((int)entries->filled, "getdents64") == 0) {
            close(entries->file);
            return NULL;
        }
        const struct dirent64* const entry = (const void*)(entries->block + entries->position);
        entries->position += entry->d_reclen;
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            return entry;
    }
}

static long long sizeBelow(int parent, const char* name) {
    struct Entries entries;
    if (!openEntries(&entries, parent, name))
        fail(name, strerror(errno));
    long long sum = 0;
    for (const struct dirent64* entry = nextEntry(&entries); entry != NULL;
         entry = nextEntry(&entries)) {
        struct stat status;
        check(fstatat(entries.file, entry->d_name, &status, AT_SYMLINK_NOFOLLOW), entry->d_name);
        sum += S_ISDIR(status.st_mode) ? sizeBelow(entries.file, entry->d_name) : status.st_size;
    }
    return sum;
}

// The size that a message's name tells, or -1.
static long long namedSize(const char* name) {
    for (const char* at = strstr(name, ",S="); at != NULL; at = strstr(at + 3, ",S=")) {
        char* end = NULL;
        const long long size = strtoll(at + 3, &end, 10);
        if (end != at + 3 && (*end == '\0' || *end == ':'))
            return size;
    }
    return -1;
}

struct Usage {
    long long bytes;
    long long messages;
    time_t newest;
};

static void raise(time_t* newest, const struct stat* status) {
    if (status->st_mtime > *newest)
        *newest = status->st_mtime;
}

static void countDirectory(const char* path, struct Usage* usage) {
    struct Entries entries;
    struct stat status;
    if (!openEntries(&entries, AT_FDCWD, path))
        return;
    check(fstat(entries.file, &status), path);
    raise(&usage->newest, &status);
    for (const struct dirent64* entry = nextEntry(&entries); entry != NULL;
         entry = nextEntry(&entries)) {
        long long size = namedSize(entry->d_name);
        if (size < 0) {
            if (fstatat(entries.file, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            size = status.st_size;
        }
        usage->bytes += size;
        ++usage->messages;
    }
}

// Calls `visit` with "new" and "cur" of the current directory, or of all of its folders.
static void visitParts(const char* folder, void (*visit)(const char*, struct Usage*),
                       struct Usage* usage) {
    static const char* const PARTS[] = {"new", "cur"};
    char path[PATH_MAX];
    for (size_t i = 0; i < COUNT(PARTS); ++i) {
        format(path, sizeof path, "%s%s", folder, PARTS[i]);
        visit(path, usage);
    }
}

static void visitMaildir(void (*visit)(const char*, struct Usage*), struct Usage* usage) {
    struct Entries entries;
    visitParts("", visit, usage);
    if (!openEntries(&entries, AT_FDCWD, "."))
        fail("Maildir", strerror(errno));
    for (const struct dirent64* entry = nextEntry(&entries); entry != NULL;
         entry = nextEntry(&entries)) {
        char folder[NAME_MAX + 2];
        if (entry->d_type != DT_DIR || entry->d_name[0] != '.')
            continue;
        format(folder, sizeof folder, "%s/", entry->d_name);
        visitParts(folder, visit, usage);
    }
}

static void lookAtTime(const char* path, struct Usage* usage) {
    struct stat status;
    if (stat(path, &status) == 0)
        raise(&usage->newest, &status);
}

// Writes the file of the Maildir that is the current directory.
static void writeMaildirsize(long long limit, struct Owner owner) {
    char host[65];
    char name[192];
    check(gethostname(host, sizeof host), "gethostname");
    format(name, sizeof name, "tmp/%lu.%u.%s-maildirsize", (unsigned long)time(NULL),
           (unsigned)getpid(), host);
    const int file = check(open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644), name);
    check(fchown(file, owner.uid, owner.gid), name);
    struct Usage usage = {0};
    visitMaildir(countDirectory, &usage);
    char content[100];
    format(content, sizeof content, "%lldS,0C\n%12lld%12lld\n", limit, usage.bytes, usage.messages);
    const size_t length = strlen(content);
    if (write(file, content, length) != (ssize_t)length || fsync(file) != 0 || close(file) != 0 ||
        rename(name, "maildirsize") != 0)
        fail(name, strerror(errno));
    struct Usage now = {0};
    visitMaildir(lookAtTime, &now);
    const struct timespec times[] = {{0, UTIME_NOW}, {usage.newest - 960, 0}};
    if (now.newest > usage.newest)
        utimensat(AT_FDCWD, "maildirsize", times, AT_SYMLINK_NOFOLLOW);
}

// Goes where the counting runs, and back.
void storeQuotaFile(const char* domain, int home, long long quota) {
    char before[PATH_MAX];
    char inHome[PATH_MAX];
    char* ascii = NULL;
    if (idna_to_ascii_8z(domain, &ascii, 0) != IDNA_SUCCESS ||
        getcwd(before, sizeof before) == NULL)
        fail(domain, "cannot be used");
    free(ascii);
    check(fchdir(home), domain);
    struct stat attachments;
    if (quota >= 0 && fstatat(home, "@attachments", &attachments, AT_SYMLINK_NOFOLLOW) == 0) {
        quota -= sizeBelow(home, "@attachments");
        if (quota < 0)
            fail(domain, "the attachments exceed a quota");
    }
    const struct Owner owner = lookUpPopuser();
    if (getcwd(inHome, sizeof inHome) == NULL)
        fail("getcwd", strerror(errno));
    check(chdir("./Maildir"), "Maildir");
    writeMaildirsize(quota < 0 ? 0 : quota == 0 ? 1 : quota, owner);
    check(chdir(inHome), inHome);
    check(chdir(before), before);
}
