// The time stamp that opens a log line.
#pragma once

#include <time.h>

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Room for a stamp ("Mon DD HH:MM:SS ", or a negative number and a blank).
constexpr unsigned int TTY_STAMP_SIZE = 64;

// 1 for a leap year of the Gregorian calendar, else 0.
int tty_is_leap_year(unsigned int year);

// Writes the UTC stamp of *t into out (TTY_STAMP_SIZE bytes at least) and
// returns out; null when out is null. Keeps no state, takes no time zone.
char *tty_ctime_r(const time_t *t, char *out);

} // namespace TTYLINE_FACE
