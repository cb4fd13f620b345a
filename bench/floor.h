// What the parts of the floor program share; each function ends the process when it fails.

#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#define COUNT(array) (sizeof(array) / sizeof(array)[0])

// No file that is read whole may be as long.
#define TEXT_SIZE 65536

// floor_support.c

_Noreturn void fail(const char* what, const char* reason);

/// Fails with errno's text when `result` is negative; returns it otherwise.
int check(int result, const char* what);

__attribute__((format(printf, 3, 4))) void format(char* buffer, size_t size, const char* text, ...);

/// Reads a file whole; false when there is none.
bool readText(int directory, const char* name, char text[static TEXT_SIZE]);

/// The part after the "@" in ASCII.
void toAscii(const char* address, char* ascii, size_t size);

struct Owner {
    uid_t uid;
    gid_t gid;
};

struct Owner lookUpPopuser(void);

// floor_storage.c

/// The size of the path of a lock file.
#define LOCK_PATH_SIZE 64

/// Makes a domain's directory.
void makeDomainRoot(const char* path, struct Owner owner);

/// Makes a mail name's home with all that belongs into it, and opens it.
int makeHome(const char* path, struct Owner owner);

/// The lock file of the .qmail in a home.
void lockPathOf(const char* home, char path[static LOCK_PATH_SIZE]);

/// The .qmail of a home.
struct Delivery {
    int home;
    char lockPath[LOCK_PATH_SIZE];
    char unnamed[TEXT_SIZE];  // forwards of the old file that the panel has not named, as lines
};

/// Makes the file what it should be; the old one's forwards stay for the time being.
void restoreDelivery(struct Delivery* delivery, bool delivers);

/// Puts a forward behind those named before and in front of those unnamed.
void addForward(struct Delivery* delivery, const char* address);

/// Drops the forwards that are still unnamed.
void dropForwards(struct Delivery* delivery);

/// Remembers the file system of a home.
void noteFileSystem(int home);

/// Flushes all that were remembered.
void flushFileSystems(void);

// floor_maildirsize.c

/// Writes maildirsize for a quota in bytes; a negative one is no limit.
void storeQuotaFile(const char* domain, int home, long long quota);

// floor_sqlite.c

void storeQuotaRow(const char* domain, const char* mailname, long long quota);
void replaceHandlers(bool reject, bool permanent);

/// Flushes the folders of both databases.
void flushDatabaseFolders(void);
