// Preloaded into a whole run: an account database that fails as no C library would.

#include <pwd.h>

struct passwd* getpwnam(const char* /*name*/) {
    throw 42;
}
