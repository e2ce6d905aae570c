#include "programs/rl-con/command.h"

#include <gtest/gtest.h>
#include <string>

TEST(Printable, leaves_printable_text_alone)
{
    EXPECT_EQ(" az~!\"'", printable(" az~!\"'"));
    EXPECT_EQ("", printable(""));
}

TEST(Printable, escapes_everything_else)
{
    EXPECT_EQ("\\x00\\x09\\x0a\\x0d\\x1b\\x1f",
              printable(std::string("\0\t\n\r\x1b\x1f", 6)));
    EXPECT_EQ("\\x7f\\x80\\x9b\\xff", printable("\x7f\x80\x9b\xff"));
}

TEST(Printable, escapes_what_escapes)
{
    EXPECT_EQ("\\\\x1b", printable("\\x1b"));
}

static std::string first_word(std::string text, std::string &rest)
{
    std::string word = take_word(text);

    rest = text;
    return word;
}

TEST(TakeWord, leaves_the_blanks_inside_the_rest)
{
    std::string rest;
    EXPECT_EQ("set", first_word(" \tset \t KEY  a  b \t", rest));
    EXPECT_EQ("KEY  a  b", rest);
}

TEST(TakeWord, is_empty_where_there_is_no_word)
{
    std::string rest;
    EXPECT_EQ("", first_word("", rest));
    EXPECT_EQ("", rest);
    EXPECT_EQ("", first_word(" \t ", rest));
    EXPECT_EQ("", rest);
    EXPECT_EQ("exit", first_word("exit", rest));
    EXPECT_EQ("", rest);
}
