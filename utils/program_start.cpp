#include "utils/program_start.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace corvo {

void ensureStandardDescriptors() noexcept {
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);  // root-owned path
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO)
        ::close(fd);
}

void sleepNoLongerThanAsked() noexcept {
    ::prctl(PR_SET_TIMERSLACK, 1UL);
}

}  // namespace corvo
