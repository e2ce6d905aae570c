#include "programs/shared/escape.h"

#include <gtest/gtest.h>

TEST(Escaped, leaves_printable_text_alone)
{
    EXPECT_EQ(" az~!\"'", escaped(" az~!\"'"));
    EXPECT_EQ("", escaped(""));
}

TEST(Escaped, escapes_everything_else)
{
    EXPECT_EQ("\\x00\\x09\\x0a\\x0d\\x1b\\x1f",
              escaped(std::string("\0\t\n\r\x1b\x1f", 6)));
    EXPECT_EQ("\\x7f\\x80\\x9b\\xff", escaped("\x7f\x80\x9b\xff"));
}

TEST(Escaped, escapes_what_escapes)
{
    EXPECT_EQ("\\\\x1b", escaped("\\x1b"));
    EXPECT_EQ("\\\\\\\\", escaped("\\\\"));
}

TEST(Escaped, shows_what_is_asked_for_by_its_number_too)
{
    EXPECT_EQ("a\\x22b\\\\c", escaped("a\"b\\c", "\""));
    EXPECT_EQ("a\\x22b\\x5cc", escaped("a\"b\\c", "\"\\"));
}

TEST(Escaped, two_texts_are_never_shown_alike)
{
    EXPECT_NE(escaped("\x1b"), escaped("\\x1b"));
    EXPECT_NE(escaped("\\\x1b"), escaped("\\\\x1b"));
}

TEST(EscapedByte, has_two_digits)
{
    EXPECT_EQ("\\x00", escaped_byte('\0'));
    EXPECT_EQ("\\xff", escaped_byte('\xff'));
}
