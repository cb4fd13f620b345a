// Homes and delivery files of the floor program.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/floor.h"

// The size of a forward as a line.
#define LINE_SIZE 1024

static const char RESET_LINE[] = "| true\n";
static const char DEFAULT_DELIVERY[] = "/var/qmail/mailnames/.default_delivery";
static const char* const DELIVERY_AGENTS[] = {"/usr/bin/deliverquota",
                                              "/usr/libexec/dovecot/dovecot-lda"};

static const char* const SKELETON[] = {
    "Maildir",         "Maildir/tmp",         "Maildir/new",         "Maildir/cur",
    "Maildir/.Spam",   "Maildir/.Spam/tmp",   "Maildir/.Spam/new",   "Maildir/.Spam/cur",
    "Maildir/.Sent",   "Maildir/.Sent/tmp",   "Maildir/.Sent/new",   "Maildir/.Sent/cur",
    "Maildir/.Drafts", "Maildir/.Drafts/tmp", "Maildir/.Drafts/new", "Maildir/.Drafts/cur",
    "Maildir/.Trash",  "Maildir/.Trash/tmp",  "Maildir/.Trash/new",  "Maildir/.Trash/cur",
    "@attachments",
};

static void makeDirectory(int parent, const char* name, mode_t mode, struct Owner owner) {
    if (mkdirat(parent, name, 0777) != 0 && errno != EEXIST)
        fail(name, strerror(errno));
    check(fchownat(parent, name, owner.uid, owner.gid, 0), name);
    check(fchmodat(parent, name, mode, 0), name);
}

void makeDomainRoot(const char* path, struct Owner owner) {
    const mode_t former = umask(077);
    makeDirectory(AT_FDCWD, path, 0750, owner);
    umask(former);
}

int makeHome(const char* path, struct Owner owner) {
    const mode_t former = umask(077);
    makeDirectory(AT_FDCWD, path, 0700, owner);
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const int home = check(open(path, flags), path);
    for (size_t i = 0; i < COUNT(SKELETON); ++i)
        makeDirectory(home, SKELETON[i], 0700, owner);
    umask(former);
    return home;
}

void lockPathOf(const char* home, char path[static LOCK_PATH_SIZE]) {
    static const char FOLDER[] = "/run/lock/files/";
    char dotqmail[PATH_MAX];
    format(dotqmail, sizeof dotqmail, "%s/.qmail", home);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(dotqmail, strlen(dotqmail), digest, &length, EVP_md5(), NULL) != 1)
        fail(dotqmail, "no MD5");
    char* end = stpcpy(path, FOLDER);
    for (unsigned i = 0; i < length; ++i) {
        *end++ = "0123456789abcdef"[digest[i] >> 4];
        *end++ = "0123456789abcdef"[digest[i] & 15];
    }
    *end = '\0';
}

static int lock(const char* path) {
    const int file = check(open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), path);
    check(flock(file, LOCK_EX), path);
    return file;
}

// Puts a new file in place of the old one once it is on the disk. The lock is held.
static void replaceDelivery(int home, const char* text) {
    const struct Owner owner = lookUpPopuser();
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const int file = check(openat(home, ".qmail.tmp", flags, 0600), ".qmail.tmp");
    const size_t length = strlen(text);
    if (write(file, text, length) != (ssize_t)length || fchown(file, owner.uid, owner.gid) != 0 ||
        fchmod(file, 0600) != 0 || fdatasync(file) != 0 || close(file) != 0 ||
        renameat(home, ".qmail.tmp", home, ".qmail") != 0)
        fail(".qmail", strerror(errno));
}

// The first of the lines that is among some others, or null. All lines have their line ends.
static char* findLine(char* lines, const char* others) {
    for (char* line = lines; *line != '\0'; line = strchr(line, '\n') + 1) {
        const size_t length = strcspn(line, "\n") + 1;
        for (const char* other = others; *other != '\0'; other = strchr(other, '\n') + 1)
            if (strncmp(line, other, length) == 0)
                return line;
    }
    return NULL;
}

static void insertLine(char lines[static TEXT_SIZE], char* at, const char* line) {
    char rest[TEXT_SIZE];
    format(rest, sizeof rest, "%s", at);
    format(at, (size_t)(lines + TEXT_SIZE - at), "%s%s", line, rest);
}

// Removes the lines that are among some others.
static void removeLines(char* lines, const char* others) {
    for (char* line = findLine(lines, others); line != NULL; line = findLine(line, others)) {
        const char* const rest = strchr(line, '\n') + 1;
        memmove(line, rest, strlen(rest) + 1);
    }
}

static char* endOf(char* text) {
    return text + strlen(text);
}

static void detectDeliveryAgent(void) {
    static bool detected;
    struct stat agent;
    for (size_t i = 0; !detected && i < COUNT(DELIVERY_AGENTS); ++i)
        detected = stat(DELIVERY_AGENTS[i], &agent) == 0 && (agent.st_mode & 0111) != 0;
    if (!detected)
        fail("delivery agent", "none");
}

static void addDeliveryLine(char lines[static TEXT_SIZE]) {
    detectDeliveryAgent();
    char text[TEXT_SIZE];
    if (!readText(AT_FDCWD, DEFAULT_DELIVERY, text))
        fail(DEFAULT_DELIVERY, strerror(errno));
    text[strcspn(text, "\n") + 1] = '\0';
    insertLine(lines, endOf(lines), text);
}

// The forwards of the file, each once.
static void readForwards(int home, char forwards[static TEXT_SIZE]) {
    char text[TEXT_SIZE];
    char line[LINE_SIZE];
    forwards[0] = '\0';
    if (!readText(home, ".qmail", text))
        return;
    for (const char* next = text; *next != '\0'; next = strchr(next, '\n') + 1) {
        if (*next != '&')
            continue;
        format(line, sizeof line, "%.*s\n", (int)strcspn(next, "\n"), next);
        if (findLine(forwards, line) == NULL)
            insertLine(forwards, endOf(forwards), line);
    }
}

void restoreDelivery(struct Delivery* delivery, bool delivers) {
    char text[TEXT_SIZE];
    const int locked = lock(delivery->lockPath);
    memcpy(text, RESET_LINE, sizeof RESET_LINE);
    if (delivers)
        addDeliveryLine(text);
    readForwards(delivery->home, delivery->unnamed);
    insertLine(text, endOf(text), delivery->unnamed);
    replaceDelivery(delivery->home, text);
    close(locked);
}

void addForward(struct Delivery* delivery, const char* address) {
    char ascii[512];
    char line[LINE_SIZE];
    char text[TEXT_SIZE];
    toAscii(address, ascii, sizeof ascii);
    format(line, sizeof line, "&%s\n", ascii);
    removeLines(delivery->unnamed, line);
    const int locked = lock(delivery->lockPath);
    if (!readText(delivery->home, ".qmail", text))
        fail(".qmail", strerror(errno));
    removeLines(text, line);
    char* const others = findLine(text, delivery->unnamed);
    insertLine(text, others != NULL ? others : endOf(text), line);
    replaceDelivery(delivery->home, text);
    close(locked);
}

void dropForwards(struct Delivery* delivery) {
    char text[TEXT_SIZE];
    if (delivery->unnamed[0] == '\0')
        return;
    const int locked = lock(delivery->lockPath);
    if (!readText(delivery->home, ".qmail", text))
        fail(".qmail", strerror(errno));
    removeLines(text, delivery->unnamed);
    replaceDelivery(delivery->home, text);
    close(locked);
}

// The file systems that homes are on.
static struct {
    dev_t device;
    int home;  // the first one met there
} fileSystems[8];
static size_t fileSystemCount;

void noteFileSystem(int home) {
    struct stat seen;
    check(fstat(home, &seen), "home");
    for (size_t i = 0; i < fileSystemCount; ++i)
        if (fileSystems[i].device == seen.st_dev)
            return;
    if (fileSystemCount == COUNT(fileSystems))
        fail("homes", "on too many file systems");
    fileSystems[fileSystemCount].device = seen.st_dev;
    fileSystems[fileSystemCount].home = check(fcntl(home, F_DUPFD_CLOEXEC, 0), "home");
    ++fileSystemCount;
}

void flushFileSystems(void) {
    for (size_t i = 0; i < fileSystemCount; ++i)
        check(syncfs(fileSystems[i].home), "syncfs");
}
