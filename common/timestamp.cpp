// UTC time stamps. The calendar is worked out here because the C library's
// conversions read the time zone under a lock, which a signal handler that
// logs must not take.
#include "common/timestamp.h"

#include <inttypes.h>
#include <stdio.h>

inline namespace TTYLINE_FACE
{

constexpr unsigned int FIRST_YEAR = 1970;
// The calendar repeats after 400 years; whole cycles are dropped first, so
// that the farthest time costs no more steps than a near one.
constexpr long DAYS_PER_CYCLE = 146097;

static const int days_per_month[12] = {31, 28, 31, 30, 31, 30,
                                       31, 31, 30, 31, 30, 31};
static const char *const name_of_month[12] = {"Jan", "Feb", "Mar", "Apr",
                                              "May", "Jun", "Jul", "Aug",
                                              "Sep", "Oct", "Nov", "Dec"};

int tty_is_leap_year(unsigned int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0;
}

static unsigned int leap_days_before(unsigned int year)
{
    const unsigned int last = year - 1;

    return last / 4 - last / 100 + last / 400;
}

// Takes whole years off days and returns the year that the rest lies in. At
// least as many have passed as if all were leap years; they go at once, as
// this runs for every line of a log.
static unsigned int take_years(int *days)
{
    const unsigned int passed = static_cast<unsigned int>(*days) / 366;
    unsigned int year = FIRST_YEAR + passed;

    *days -= static_cast<int>(365 * passed + leap_days_before(year) -
                              leap_days_before(FIRST_YEAR));
    for (;;) {
        const int length = 365 + tty_is_leap_year(year);
        if (*days < length) {
            return year;
        }
        *days -= length;
        year++;
    }
}

// Takes whole months off days and returns the month's index, 0 to 11.
static int take_months(int *days, unsigned int year)
{
    int month = 0;

    while (month < 11) {
        const int leap_day = month == 1 ? tty_is_leap_year(year) : 0;
        const int length = days_per_month[month] + leap_day;
        if (*days < length) {
            break;
        }
        *days -= length;
        month++;
    }
    return month;
}

char *tty_ctime_r(const time_t *t, char *out)
{
    if (out == nullptr) {
        return nullptr;
    }
    const int64_t now = *t;
    if (now < 0) {
        (void)snprintf(out, TTY_STAMP_SIZE, "%" PRId64 " ", now);
        return out;
    }

    int days = static_cast<int>(now / 86400 % DAYS_PER_CYCLE);
    const unsigned int year = take_years(&days);
    const int month = take_months(&days, year);
    (void)snprintf(out, TTY_STAMP_SIZE, "%s %02d %02d:%02d:%02d ",
                   name_of_month[month], days + 1,
                   static_cast<int>(now / 3600 % 24),
                   static_cast<int>(now / 60 % 60), static_cast<int>(now % 60));
    return out;
}

} // namespace TTYLINE_FACE
