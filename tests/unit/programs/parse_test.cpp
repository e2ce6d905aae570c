#include "programs/shared/parse.h"

#include <climits>

#include <gtest/gtest.h>

TEST(ParseNumber, takes_both_bounds)
{
    int value = 0;
    EXPECT_TRUE(parse_number("258", 258, 321, value));
    EXPECT_EQ(value, 258);
    EXPECT_TRUE(parse_number("321", 258, 321, value));
    EXPECT_EQ(value, 321);
    EXPECT_TRUE(parse_number("2147483647", 0, INT_MAX, value));
    EXPECT_EQ(value, INT_MAX);
}

TEST(ParseNumber, takes_all_that_an_unsigned_number_holds)
{
    unsigned value = 0;
    EXPECT_TRUE(parse_number("4294967295", 0, UINT_MAX, value));
    EXPECT_EQ(value, UINT_MAX);
    EXPECT_FALSE(parse_number("4294967296", 0, UINT_MAX, value));
}

TEST(ParseNumber, refuses_what_is_out_of_bounds_and_leaves_the_value)
{
    int value = 7;
    for (const char *text : {"257", "322", "0", "99999999999999999999"}) {
        EXPECT_FALSE(parse_number(text, 258, 321, value)) << text;
    }
    EXPECT_EQ(value, 7);
}

TEST(ParseNumber, refuses_all_but_digits)
{
    int value = 7;
    unsigned other = 8;
    for (const char *text : {"", "-", "-0", "-1", "+1", " 1", "1 ", "1x", "x",
                             "0x10", "1.0", "1\n"}) {
        EXPECT_FALSE(parse_number(text, 0, 100, value)) << text;
        EXPECT_FALSE(parse_number(text, 0, 100, other)) << text;
    }
    EXPECT_FALSE(parse_number(std::string("1\0", 2), 0, 100, value));
    EXPECT_EQ(value, 7);
    EXPECT_EQ(other, 8U);
}
