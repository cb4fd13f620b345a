// Why the program makes system calls that the floor under it does without.

#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace corvo::test {

/// How much there is to restore, or how many calls are made for each of it.
struct Size {
    long runs = 0;
    long domains = 0;
    long names = 0;
    long deliveries = 0;  // mail names with a mailbox that delivers
    long forwards = 0;
};

/// The calls for everything that there is.
inline long total(const Size& calls, const Size& size) {
    return calls.runs * size.runs + calls.domains * size.domains + calls.names * size.names +
           calls.deliveries * size.deliveries + calls.forwards * size.forwards;
}

enum class Tree { fresh, existing, either };

struct Reason {
    std::vector<std::string> kinds;  // of calls that come together, one for each call
    Tree tree;                       // where they are made
    Size calls;                      // negative: the floor's alone
    std::string why;
};

inline const std::vector<Reason> REASONS = {
    {{"open", "close"},
     Tree::fresh,
     {.domains = 1, .names = 21},
     "Directories get owner and mode once they are open: by its name, root could give away what "
     "popuser has put in its place."},
    {{"open", "close"},
     Tree::existing,
     {.domains = 1},
     "An old domain root is opened to be looked at: on the way to it, links of root are followed."},
    {{"stat"},
     Tree::existing,
     {.domains = 1, .names = 22},
     "Old directories are looked at: those that are right are left alone."},
    {{"stat"},
     Tree::either,
     {.names = 1, .deliveries = 1, .forwards = 1},
     "Lock files and the default delivery are looked at when they are open: a pipe or a device may "
     "lie there."},
    {{"stat", "read"},
     Tree::either,
     {.forwards = 1},
     "So is .qmail, which must be no other file's second name; and it is read until nothing more "
     "comes, as it may grow meanwhile."},
    {{"stat", "read"}, Tree::existing, {.names = 1}, "So is the one that a restore finds,"},
    {{"open", "close"},
     Tree::existing,
     {.names = -1, .forwards = -1},
     "which needs no new one beside it where it is right."},
    {{"stat"},
     Tree::either,
     {.runs = 12, .names = 1},
     "The databases, their journals and their folder are looked at when they are open: popuser can "
     "put links to other files there."},
    {{"stat"}, Tree::fresh, {.names = 2}, "Only a row that is written costs a journal."},
    {{"fcntl", "fcntl", "fcntl", "fcntl", "stat", "stat", "stat", "pread64"},
     Tree::fresh,
     {.names = 1},
     "Before a quota's row is written it is asked for, which locks and unlocks the database."},
    {{"open", "close", "open", "close", "stat", "stat", "stat", "pread64"},
     Tree::existing,
     {.names = -1},
     "A row that is right needs no journal, and no page of it is read to be written."},
    {{"fcntl", "stat"},
     Tree::fresh,
     {.runs = 16},
     "Before the handlers are replaced they are asked for, by three statements"},
    {{"stat", "pread64"}, Tree::fresh, {.runs = 9}, "that read the database"},
    {{"getpid"}, Tree::fresh, {.runs = 1}, "through a connection of their own."},
    {{"stat"}, Tree::existing, {.runs = -47}, "Handlers that are right need no journal."},
    {{"open", "close"},
     Tree::either,
     {.names = 1, .forwards = 1},
     "A .qmail is read, written and renamed in one home, which each step opens once."},
    {{"open", "close"}, Tree::fresh, {.names = 1}, "So does the rename of maildirsize."},
    {{"stat"},
     Tree::either,
     {.names = 1},
     "Before the count maildirsize is looked at: only one that could be right is counted for."},
    {{"stat", "pread64", "utimensat"},
     Tree::existing,
     {.names = 1},
     "After it the open file is looked at and read; one that is right gets the times of a new "
     "one."},
    {{"open", "close"},
     Tree::either,
     {.names = 4},
     "The times of a folder's \"cur\" and \"new\" are asked for in the folder, once it is open."},
    {{"open", "close"},
     Tree::either,
     {.names = 3},
     "The home, its Maildir, and where to come back to, are held open: by then, paths could lead "
     "elsewhere."},
    {{"open", "close"},
     Tree::fresh,
     {.domains = 1, .names = 1},
     "What is missing is made in its parent, which is opened for that"},
    {{"open"},
     Tree::fresh,
     {.domains = 2, .names = 2},
     "after it could not be opened itself, before the umask is set and after it."},
    {{"stat"},
     Tree::either,
     {.runs = 2, .domains = 2, .names = 2},
     "Each connection's two credential files are looked at for their kind and size."},
    {{"read"},
     Tree::either,
     {.runs = 1, .domains = 1, .names = 1},
     "The panel's ini file is read until every value is found or nothing more comes: its size may "
     "change meanwhile."},
    {{"open", "close", "stat", "read", "mmap", "mprotect", "futex"},
     Tree::either,
     {.runs = 12},
     "The C++ runtime is loaded and made ready, and the standard descriptors are seen to."},
    {{"sendto", "recvfrom"},
     Tree::either,
     {.runs = 1},
     "Before its last step the walk asks whether the server has kept the connection, which idled "
     "during the first."},
    {{"rt_sigaction"}, Tree::either, {.runs = 2}, "Two signals are ignored."},
    {{"open", "close"},
     Tree::either,
     {.runs = 1, .domains = 1, .names = 1},
     "The file system of a domain's root or a home is noted when all is done there, and the "
     "directory walked to for that: its path could lead elsewhere by then."},
    {{"fcntl"}, Tree::either, {.runs = -1}, "The floor notes the home that it has open."},
};

/// How many calls of a kind the reasons account for.
inline long accountedFor(const std::string& kind, Tree tree, const Size& size) {
    long calls = 0;
    for (const Reason& reason : REASONS) {
        const bool isMade = reason.tree == Tree::either || reason.tree == tree;
        if (isMade)
            calls += std::ranges::count(reason.kinds, kind) * total(reason.calls, size);
    }
    return calls;
}

}  // namespace corvo::test
