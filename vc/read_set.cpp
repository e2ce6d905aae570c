#include "vc/read_set.h"

#include <string.h>
#include <sys/select.h>

constexpr int WORD_BITS = 8 * sizeof(unsigned long);

// The kernel reads a set as an array of words of this size.
static_assert(sizeof(fd_mask) == sizeof(unsigned long), "word of a set");

static bool fits(int fd)
{
    return fd >= 0 && fd < READ_SET_SIZE;
}

static unsigned long bit_of(int fd)
{
    return 1UL << (fd % WORD_BITS);
}

void read_set_clear(read_set *set)
{
    memset(set, 0, sizeof *set);
    set->highest = -1;
}

void read_set_add(read_set *set, int fd)
{
    if (!fits(fd)) {
        return;
    }
    set->bits[fd / WORD_BITS] |= bit_of(fd);
    if (fd > set->highest) {
        set->highest = fd;
    }
}

void read_set_remove(read_set *set, int fd)
{
    if (fits(fd)) {
        set->bits[fd / WORD_BITS] &= ~bit_of(fd);
    }
}

bool read_set_has(const read_set *set, int fd)
{
    return fits(fd) && (set->bits[fd / WORD_BITS] & bit_of(fd)) != 0;
}

int read_set_wait(read_set *set, long seconds, long microseconds)
{
    struct timeval time_out = {seconds, microseconds};

    return select(set->highest + 1, reinterpret_cast<fd_set *>(set->bits),
                  nullptr, nullptr, &time_out);
}
