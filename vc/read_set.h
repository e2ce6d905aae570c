// The descriptors that the loop waits for. The C library's set ends at 1024
// and its macros abort above; this one holds 65536.
#pragma once

constexpr int READ_SET_SIZE = 65536;

struct read_set {
    unsigned long bits[READ_SET_SIZE / (8 * sizeof(unsigned long))];
    int highest;
};

void read_set_clear(read_set *set);

// Adds fd and raises the highest descriptor; one that does not fit is left
// out.
void read_set_add(read_set *set, int fd);
void read_set_remove(read_set *set, int fd);
// false for a negative descriptor and one that does not fit.
bool read_set_has(const read_set *set, int fd);

// Waits until one of the descriptors is readable; the set then holds those
// that are. Returns what select() returns.
int read_set_wait(read_set *set, long seconds, long microseconds);
