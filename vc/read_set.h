// The descriptors that the loop waits for. The C library's set ends at 1024
// and its macros abort above; this one holds 65536. The loop adds and looks up
// two descriptors a session in each turn, so these steps are in place.
#pragma once

#include <string.h>

constexpr int READ_SET_SIZE = 65536;
constexpr int READ_SET_WORD_BITS = 8 * sizeof(unsigned long);

// Zeroed before its first use.
struct read_set {
    unsigned long bits[READ_SET_SIZE / READ_SET_WORD_BITS];
    int highest; // -1 when the set is empty
};

inline bool read_set_fits(int fd)
{
    return fd >= 0 && fd < READ_SET_SIZE;
}

inline unsigned long read_set_bit(int fd)
{
    return 1UL << (fd % READ_SET_WORD_BITS);
}

// No bit above the highest descriptor has been set since the last time.
inline void read_set_clear(read_set *set)
{
    const int words = set->highest / READ_SET_WORD_BITS + 1;

    memset(set->bits, 0, static_cast<size_t>(words) * sizeof set->bits[0]);
    set->highest = -1;
}

// Adds fd and raises the highest descriptor; one that does not fit is left
// out.
inline void read_set_add(read_set *set, int fd)
{
    if (!read_set_fits(fd)) {
        return;
    }
    set->bits[fd / READ_SET_WORD_BITS] |= read_set_bit(fd);
    if (fd > set->highest) {
        set->highest = fd;
    }
}

inline void read_set_remove(read_set *set, int fd)
{
    if (read_set_fits(fd)) {
        set->bits[fd / READ_SET_WORD_BITS] &= ~read_set_bit(fd);
    }
}

// false for a negative descriptor and one that does not fit.
inline bool read_set_has(const read_set *set, int fd)
{
    return read_set_fits(fd) &&
           (set->bits[fd / READ_SET_WORD_BITS] & read_set_bit(fd)) != 0;
}

// Switches fd to blocking mode and adds it. A number that is not open, as an
// assignment that comes too late may name one, is left out: it would make every
// wait fail at once and so stop all sessions. errno is kept. Returns whether
// the number is open.
bool read_set_watch(read_set *set, int fd);

// Waits until one of the descriptors is readable; the set then holds those
// that are. Returns what select() returns: how many they are, 0 or -1.
int read_set_wait(read_set *set, long seconds, long microseconds);
