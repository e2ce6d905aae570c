#include "kit/descriptors.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

constexpr int FIRST_NUMBER = 3;

static bool kept(int fd, const int *own, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (own[i] == fd) {
            return true;
        }
    }
    return false;
}

// The kernel may be older than the call, or a filter may refuse it.
static bool close_range_of(unsigned int first, unsigned int last)
{
#ifdef SYS_close_range
    return first > last || syscall(SYS_close_range, first, last, 0u) == 0;
#else
    (void)first;
    (void)last;
    return false;
#endif
}

// The lowest of them from this number on; -1 when there is none.
static int next_own(int from, const int *own, size_t count)
{
    int lowest = -1;

    for (size_t i = 0; i < count; i++) {
        if (own[i] >= from && (lowest < 0 || own[i] < lowest)) {
            lowest = own[i];
        }
    }
    return lowest;
}

static bool close_ranges(const int *own, size_t count)
{
    int from = FIRST_NUMBER;

    for (;;) {
        const int next = next_own(from, own, count);
        const unsigned int last =
            next < 0 ? UINT_MAX : static_cast<unsigned int>(next) - 1;
        if (!close_range_of(static_cast<unsigned int>(from), last)) {
            return false;
        }
        if (next < 0) {
            return true;
        }
        from = next + 1;
    }
}

// The listing's own descriptor goes last: closing it ends the walk.
static void close_listed(const int *own, size_t count)
{
    DIR *listing = opendir("/proc/self/fd");

    if (listing == nullptr) {
        const long limit = sysconf(_SC_OPEN_MAX);
        for (int fd = FIRST_NUMBER; fd < limit; fd++) {
            if (!kept(fd, own, count)) {
                close(fd);
            }
        }
        return;
    }
    const struct dirent *entry;
    while ((entry = readdir(listing)) != nullptr) {
        const int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd >= FIRST_NUMBER && fd != dirfd(listing) &&
            !kept(fd, own, count)) {
            close(fd);
        }
    }
    closedir(listing);
}

void kit_close_all_but(const int *own, size_t count)
{
    if (!close_ranges(own, count)) {
        close_listed(own, count);
    }
}
