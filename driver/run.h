// One run of the program.

#pragma once

/// Reads the restore mode from argv[1] (none: everything; later arguments are not read), walks the
/// panel database once and restores what it reports. Returns 0 after a completed walk, failed steps
/// included, and 1 after writing the usage line to standard error for an unknown argument. What
/// cannot be survived is thrown.
int do_main(int argc, char** argv);
