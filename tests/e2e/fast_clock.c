// Loaded into the daemon before the C library: a wall clock of its own. $FAST_CLOCK names a file with "REAL SHOWN SPEED":
// at the moment REAL the clock shows SHOWN (seconds since 1970), and it runs SPEED times as fast. What the daemon waits
// for comes that much sooner. With $FAST_MONOTONIC the clock of its time limits runs as fast. libfaketime cannot be
// loaded beside a sanitizer.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <math.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct setting {
    double real;
    double shown;
    double speed;
};

static struct setting read_setting(void) {
    const struct setting usual = {0, 0, 1};
    struct setting result;
    const char* path = getenv("FAST_CLOCK");
    FILE* file = path != NULL ? fopen(path, "re") : NULL;
    if (file == NULL) return usual;
    const int fields = fscanf(file, "%lf %lf %lf", &result.real, &result.shown, &result.speed);
    fclose(file);
    return fields == 3 ? result : usual;
}

static double seconds_of(const struct timespec* time) { return (double)time->tv_sec + (double)time->tv_nsec / 1e9; }

static struct timespec timespec_of(double seconds) {
    const double whole = floor(seconds);
    return (struct timespec){(time_t)whole, (long)((seconds - whole) * 1e9)};
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_REALTIME) {
        const struct setting set = read_setting();
        *now = timespec_of(set.shown + (seconds_of(now) - set.real) * set.speed);
    } else if (clock == CLOCK_MONOTONIC && getenv("FAST_MONOTONIC") != NULL) {
        *now = timespec_of(seconds_of(now) * read_setting().speed);
    }
    return (int)result;
}

// The next function of a name is a sanitizer's, which must know of what waits, or the C library's.
int nanosleep(const struct timespec* wanted, struct timespec* left) {
    int (*const next)(const struct timespec*, struct timespec*) = dlsym(RTLD_NEXT, "nanosleep");
    const struct timespec shorter = timespec_of(seconds_of(wanted) / read_setting().speed);
    return next(&shorter, left);
}

// The C library's sleep does not call the function above.
unsigned sleep(unsigned seconds) {
    const struct timespec wanted = {seconds, 0};
    nanosleep(&wanted, NULL);
    return 0;
}

int poll(struct pollfd* files, nfds_t count, int ms) {
    int (*const next)(struct pollfd*, nfds_t, int) = dlsym(RTLD_NEXT, "poll");
    return next(files, count, ms > 0 && getenv("FAST_MONOTONIC") != NULL ? (int)ceil(ms / read_setting().speed) : ms);
}
