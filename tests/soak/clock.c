// A clock that somebody sets: loaded before the daemons, it adds to the time of
// day what stands in a file that they share with the test. The machine's own
// clock is everybody's.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t *g_seconds;

__attribute__((constructor)) static void find_seconds(void)
{
    const char *name = getenv("SOAK_CLOCK");
    const int fd = name != NULL ? open(name, O_RDONLY | O_CLOEXEC) : -1;

    if (fd >= 0) {
        void *page =
            mmap(NULL, sizeof *g_seconds, PROT_READ, MAP_SHARED, fd, 0);
        g_seconds = page != MAP_FAILED ? page : NULL;
        close(fd);
    }
}

// The headers' parameters have names that a program must not use.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
int clock_gettime(clockid_t id, struct timespec *now)
{
    static int (*real)(clockid_t, struct timespec *);

    if (real == NULL) {
        // The one way from a name to a function that the language has.
        *(void **)&real = dlsym(RTLD_NEXT, "clock_gettime");
    }
    const int result = real(id, now);
    if (result == 0 && id == CLOCK_REALTIME && g_seconds != NULL) {
        now->tv_sec += *g_seconds;
    }
    return result;
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
time_t time(time_t *where)
{
    struct timespec now = {0, 0};

    clock_gettime(CLOCK_REALTIME, &now);
    if (where != NULL) {
        *where = now.tv_sec;
    }
    return now.tv_sec;
}
