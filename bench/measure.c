// Runs a command and says what it cost: measure FILE COMMAND [ARGUMENT ...]
//
// FILE gets one line: wall, user and system time in seconds and the peak of resident memory in KiB.
// Times are the command's and those of all children that were waited for; the peak is that of the
// largest one of them. Ends with the command's exit status, or 128 and the number of its signal.
//
// It is small on purpose: between fork and exec a child has its parent's memory, and the kernel
// takes that for the child's peak.

#include <stdio.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static double seconds(struct timeval time) {
    return (double)time.tv_sec + (double)time.tv_usec / 1e6;
}

static void runCommand(char** command) {
    execvp(command[0], command);
    perror(command[0]);
    _exit(127);
}

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "Usage: %s FILE COMMAND [ARGUMENT ...]\n", argv[0]);
        return 2;
    }
    const double start = now();
    const pid_t child = fork();
    if (child == 0)
        runCommand(argv + 2);
    int status = 0;
    struct rusage used;
    if (child < 0 || wait4(child, &status, 0, &used) != child) {
        perror("measure");
        return 2;
    }
    const double wall = now() - start;

    FILE* const file = fopen(argv[1], "we");
    if (file == NULL ||
        fprintf(file, "%.6f %.6f %.6f %ld\n", wall, seconds(used.ru_utime), seconds(used.ru_stime),
                used.ru_maxrss) < 0 ||
        fclose(file) != 0) {
        perror(argv[1]);
        return 2;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
