#include "programs/rl-con/command.h"

#include <gtest/gtest.h>
#include <string>

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
