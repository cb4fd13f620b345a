// Preloaded into a whole run: at its end writes to the file that CORVO_SQLITE_FILE names whether
// SQLite has gone without mutexes and without statistics of its memory.

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace {

// A connection that asks for a mutex gets none where there are none at all.
bool hasMutexes() {
    sqlite3* database = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY | SQLITE_OPEN_FULLMUTEX;
    (void)sqlite3_open_v2(":memory:", &database, flags, nullptr);
    const bool has = sqlite3_db_mutex(database) != nullptr;
    (void)sqlite3_close(database);
    return has;
}

// Runs when the program ends, after its own destructors.
__attribute__((destructor)) void report() {
    const char* const path = std::getenv("CORVO_SQLITE_FILE");
    std::FILE* const file = path != nullptr ? std::fopen(path, "we") : nullptr;
    if (file == nullptr)
        return;
    const bool hasStatistics = sqlite3_memory_highwater(0) > 0;
    (void)std::fprintf(file, "mutexes %d, statistics %d", hasMutexes(), hasStatistics);
    (void)std::fclose(file);
}

}  // namespace
