// Text from others, made fit for a log line or a screen.
#include <string>

#include <gtest/gtest.h>

#include "kit/text.h"

static std::string word(const std::string &text, size_t size = 256)
{
    std::string buffer(size, 'x');
    return kit_word(buffer.data(), size, text.c_str());
}

TEST(KitText, word_has_no_blank_and_no_control_character)
{
    EXPECT_EQ(word("plain-1.2:3/[x]"), "plain-1.2:3/[x]");
    EXPECT_EQ(word("a b\tc\nd\x7f\x80%\"\\"), "a%20b%09c%0Ad%7F%80%25%22%5C");
}

TEST(KitText, empty_word_is_a_dash)
{
    EXPECT_EQ(word(""), "-");
}

TEST(KitText, word_that_does_not_fit_is_cut_between_characters)
{
    EXPECT_EQ(word("abcdef", 4), "abc");
    EXPECT_EQ(word("ab cd", 5), "ab");
    EXPECT_EQ(word("ab cd", 6), "ab%20");
    EXPECT_EQ(word("abc", 1), "");
}

static std::string plain(const char *text, size_t size = 64)
{
    std::string buffer(size, 'x');
    return kit_plain(buffer.data(), size, text);
}

TEST(KitText, plain_text_ends_at_the_first_control_character)
{
    EXPECT_EQ(plain("one line"), "one line");
    EXPECT_EQ(plain("one\nforged line"), "one");
    EXPECT_EQ(plain("one\033[2J"), "one");
    EXPECT_EQ(plain("one\x7ftwo"), "one");
    EXPECT_EQ(plain("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(plain("too long", 4), "too");
    EXPECT_EQ(plain("", 1), "");
}

TEST(KitText, number_is_digits_within_its_range)
{
    int number = -1;
    EXPECT_TRUE(kit_number("0", 0, 10, &number));
    EXPECT_EQ(number, 0);
    EXPECT_TRUE(kit_number("0010", 0, 10, &number));
    EXPECT_EQ(number, 10);
    for (const char *text : {"", "-1", "+1", " 1", "1 ", "0x1", "11",
                             "4294967297", "18446744073709551617"}) {
        EXPECT_FALSE(kit_number(text, 0, 10, &number)) << text;
    }
}
