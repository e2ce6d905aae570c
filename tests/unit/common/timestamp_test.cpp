#include "common/timestamp.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

constexpr time_t DAY = 86400;
constexpr time_t CYCLE = 146097 * DAY;
constexpr time_t LARGEST = std::numeric_limits<time_t>::max();

static std::string stamp(time_t t)
{
    char out[TTY_STAMP_SIZE];

    memset(out, 0x5a, sizeof out);
    EXPECT_EQ(tty_ctime_r(&t, out), out);
    return out;
}

// The C library's opinion; whole cycles of the calendar are taken off where
// its year does not fit.
static std::string reference(time_t t)
{
    static const char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm parts;
    char out[128];

    if (gmtime_r(&t, &parts) == nullptr) {
        t %= CYCLE;
        gmtime_r(&t, &parts);
    }
    (void)snprintf(out, sizeof out, "%s %02d %02d:%02d:%02d ",
                   months[parts.tm_mon], parts.tm_mday, parts.tm_hour,
                   parts.tm_min, parts.tm_sec);
    return out;
}

TEST(Stamp, null_buffer_gives_null)
{
    const time_t now = 0;
    EXPECT_EQ(tty_ctime_r(&now, nullptr), nullptr);
}

TEST(Stamp, is_month_day_time_and_a_blank)
{
    EXPECT_EQ(stamp(0), "Jan 01 00:00:00 ");
    EXPECT_EQ(stamp(951782400), "Feb 29 00:00:00 ");
    EXPECT_EQ(stamp(1609459199), "Dec 31 23:59:59 ");
    EXPECT_EQ(stamp(1700115133), "Nov 16 06:12:13 ");
}

TEST(Stamp, negative_time_is_the_number_and_a_blank)
{
    EXPECT_EQ(stamp(-5), "-5 ");
    EXPECT_EQ(stamp(-1), "-1 ");
    EXPECT_EQ(stamp(std::numeric_limits<time_t>::min()),
              "-9223372036854775808 ");
}

TEST(Stamp, first_and_last_second_of_every_day_from1970_to2400)
{
    for (time_t day = 0; day < 157420; day++) {
        ASSERT_EQ(stamp(day * DAY), reference(day * DAY)) << day;
        ASSERT_EQ(stamp(day * DAY + DAY - 1), reference(day * DAY + DAY - 1))
            << day;
    }
}

TEST(Stamp, every_second_of_a_day)
{
    for (time_t t = 0; t < DAY; t++) {
        ASSERT_EQ(stamp(t), reference(t)) << t;
    }
}

TEST(Stamp, random_times_up_to_the_largest)
{
    std::mt19937_64 random(1586);
    for (int bits = 32; bits <= 63; bits++) {
        for (int i = 0; i < 2000; i++) {
            const time_t t = static_cast<time_t>(random() >> (64 - bits));
            ASSERT_EQ(stamp(t), reference(t)) << t;
        }
    }
}

TEST(Stamp, largest_times)
{
    for (time_t t = LARGEST; t > LARGEST - 1000; t--) {
        ASSERT_EQ(stamp(t), reference(t)) << t;
    }
    // The last second of a year that the C library can name, and the next.
    for (const time_t t : {67768036191676799, 67768036191676800}) {
        EXPECT_EQ(stamp(t), reference(t)) << t;
    }
}

TEST(Stamp, time_zone_does_not_matter)
{
    for (const char *zone : {"XYZ-5:30", "XYZ+11", "Europe/Berlin"}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(stamp(951782400), "Feb 29 00:00:00 ") << zone;
        EXPECT_EQ(stamp(1689428800), "Jul 15 13:46:40 ") << zone;
    }
}

TEST(Stamp, threads_do_not_disturb_each_other)
{
    std::vector<std::thread> threads;
    for (time_t first = 0; first < 8; first++) {
        threads.emplace_back([first] {
            for (time_t i = 0; i < 2000; i++) {
                const time_t t = (first * 2000 + i) * 700001;
                char out[TTY_STAMP_SIZE];
                ASSERT_EQ(tty_ctime_r(&t, out), reference(t));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST(LeapYear, every_fourth_but_not_every_hundredth_but_every_four_hundredth)
{
    for (const unsigned int year :
         {0u, 4u, 1600u, 1972u, 2000u, 2024u, 2400u, 4294967292u}) {
        EXPECT_EQ(tty_is_leap_year(year), 1) << year;
    }
    for (const unsigned int year : {1u, 100u, 1700u, 1900u, 1970u, 2023u, 2100u,
                                    2200u, 2300u, 4294967295u}) {
        EXPECT_EQ(tty_is_leap_year(year), 0) << year;
    }
}
