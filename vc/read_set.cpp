#include "vc/read_set.h"

#include <sys/select.h>

// The kernel reads a set as an array of words of this size.
static_assert(sizeof(fd_mask) == sizeof(unsigned long), "word of a set");

int read_set_wait(read_set *set, long seconds, long microseconds)
{
    struct timeval time_out = {seconds, microseconds};

    return select(set->highest + 1, reinterpret_cast<fd_set *>(set->bits),
                  nullptr, nullptr, &time_out);
}
