#include "util/descriptors.h"

#include <climits>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr long fallback_limit = 256;

}  // namespace

long descriptor_limit() {
    const long limit = sysconf(_SC_OPEN_MAX);
    return limit > 0 ? limit : fallback_limit;
}

void close_from(int first, long limit) {
    // One call, where the kernel has it: its cost does not grow with the limit.
    if (close_range(static_cast<unsigned>(first), UINT_MAX, 0) == 0) {
        return;
    }
    for (int fd = first; fd < limit; ++fd) {
        close(fd);
    }
}

void take_over_descriptors() {
    close_from(STDERR_FILENO + 1, descriptor_limit());
    // open returns the lowest free number, so this fills exactly the gaps among 0, 1 and 2.
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}
