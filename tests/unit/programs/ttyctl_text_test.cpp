#include "programs/ttyctl/text.h"

#include <gtest/gtest.h>

TEST(Utf8Only, leaves_well_formed_text_alone)
{
    for (const char *text :
         {"", "plain \\ \"text\"", "\x01\x1b\x7f", "\xc2\x80", "\xc3\xa9",
          "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xef\xbf\xbf",
          "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(utf8_only(text), text);
    }
    EXPECT_EQ(utf8_only(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(Utf8Only, shows_bytes_that_begin_nothing_by_their_number)
{
    EXPECT_EQ(utf8_only("a\x80\xbf\xff"
                        "b"),
              "a\\x80\\xbf\\xff"
              "b");
    EXPECT_EQ(utf8_only("\xf5\x80\x80\x80"), "\\xf5\\x80\\x80\\x80");
}

TEST(Utf8Only, refuses_forms_that_are_too_long)
{
    EXPECT_EQ(utf8_only("\xc0\xaf"), "\\xc0\\xaf");
    EXPECT_EQ(utf8_only("\xc1\xbf"), "\\xc1\\xbf");
    EXPECT_EQ(utf8_only("\xe0\x9f\xbf"), "\\xe0\\x9f\\xbf");
    EXPECT_EQ(utf8_only("\xf0\x8f\xbf\xbf"), "\\xf0\\x8f\\xbf\\xbf");
}

TEST(Utf8Only, refuses_surrogates_and_what_is_above_the_last_character)
{
    EXPECT_EQ(utf8_only("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(utf8_only("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(Utf8Only, a_sequence_that_is_cut_short_does_not_swallow_what_follows)
{
    EXPECT_EQ(utf8_only("\xc3"), "\\xc3");
    EXPECT_EQ(utf8_only("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(utf8_only("\xe2\x82"
                        "a"),
              "\\xe2\\x82"
              "a");
    EXPECT_EQ(utf8_only("\xf0\x9f\x98\xc3\xa9"), "\\xf0\\x9f\\x98\xc3\xa9");
}
