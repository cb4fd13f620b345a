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

static const char* const KNOWN_DELIVERY_LINES[] = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    ("| /usr/libexec/dovecot/dovecot-lda -d \"$DELIVERED_TO\" -a "
     "\"${ORIGINAL_RECIPIENT:-$DELIVERED_TO}\""),
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

static void writeAndClose(int file, const char* text) {
    const size_t length = strlen(text);
    if (write(file, text, length) != (ssize_t)length || close(file) != 0)
        fail("write", strerror(errno));
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

static void giveToPopuser(int home) {
    const struct Owner owner = lookUpPopuser();
    check(fchownat(home, ".qmail", owner.uid, owner.gid, AT_SYMLINK_NOFOLLOW), ".qmail");
    check(fchmodat(home, ".qmail", 0600, 0), ".qmail");
}

void resetDelivery(int home) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    writeAndClose(check(openat(home, ".qmail", flags, 0600), ".qmail"), "| true\n");
    giveToPopuser(home);
}

static bool isOneOf(const char* line, const char* const* lines, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (strcmp(line, lines[i]) == 0)
            return true;
    return false;
}

static void removeLines(int home, const char* lockPath, const char* const* lines, size_t count) {
    const int locked = lock(lockPath);
    struct stat former;
    check(fstatat(home, ".qmail", &former, AT_SYMLINK_NOFOLLOW), ".qmail");
    char old[TEXT_SIZE];
    char kept[TEXT_SIZE];
    if (!readText(home, ".qmail", old))
        fail(".qmail", strerror(errno));
    char* end = kept;
    *end = '\0';
    char* rest = old;
    for (char* line = strsep(&rest, "\n"); rest != NULL; line = strsep(&rest, "\n"))
        if (!isOneOf(line, lines, count))
            end = stpcpy(stpcpy(end, line), "\n");
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const int fresh = check(openat(home, ".qmail.tmp", flags, 0600), ".qmail.tmp");
    check(fchown(fresh, former.st_uid, former.st_gid), ".qmail.tmp");
    check(fchmod(fresh, former.st_mode & 07777), ".qmail.tmp");
    writeAndClose(fresh, kept);
    check(renameat(home, ".qmail.tmp", home, ".qmail"), ".qmail.tmp");
    close(locked);
}

static void addLine(int home, const char* lockPath, const char* line) {
    const int locked = lock(lockPath);
    struct stat former;
    check(fstatat(home, ".qmail", &former, AT_SYMLINK_NOFOLLOW), ".qmail");
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC;
    const int file = check(openat(home, ".qmail", flags, 0666), ".qmail");
    check(fchown(file, former.st_uid, former.st_gid), ".qmail");
    check(fchmod(file, former.st_mode & 07777), ".qmail");
    char text[PATH_MAX];
    format(text, sizeof text, "%s\n", line);
    writeAndClose(file, text);
    close(locked);
}

static void detectDeliveryAgent(void) {
    static bool detected;
    struct stat agent;
    for (size_t i = 0; !detected && i < COUNT(DELIVERY_AGENTS); ++i)
        detected = stat(DELIVERY_AGENTS[i], &agent) == 0 && (agent.st_mode & 0111) != 0;
    if (!detected)
        fail("delivery agent", "none");
}

void enableDelivery(int home, const char* lockPath) {
    detectDeliveryAgent();
    removeLines(home, lockPath, KNOWN_DELIVERY_LINES, COUNT(KNOWN_DELIVERY_LINES));
    char text[TEXT_SIZE];
    if (!readText(AT_FDCWD, DEFAULT_DELIVERY, text))
        fail(DEFAULT_DELIVERY, strerror(errno));
    char* rest = text;
    addLine(home, lockPath, strsep(&rest, "\n"));
    giveToPopuser(home);
}

void addForward(int home, const char* lockPath, const char* address) {
    char ascii[512];
    char line[514];
    toAscii(address, ascii, sizeof ascii);
    format(line, sizeof line, "&%s", ascii);
    const char* const lines[] = {line};
    removeLines(home, lockPath, lines, 1);
    addLine(home, lockPath, line);
    giveToPopuser(home);
}
