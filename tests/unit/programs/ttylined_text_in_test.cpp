#include "programs/ttylined/text_in.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

// A stream that has brought this so far.
static text_in holding(const std::string &text)
{
    text_in in;

    in.held = text;
    return in;
}

TEST(TextIn, gives_one_line_after_the_other)
{
    text_in in = holding("one\n\ntwo\r\nthree");
    std::string line;
    for (const char *expected : {"one", "", "two"}) {
        ASSERT_EQ(text_in_next(in, false, line), text_result::line);
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(text_in_next(in, false, line), text_result::none);
    EXPECT_EQ(in.held, "three");
}

TEST(TextIn, the_last_line_needs_no_line_feed)
{
    text_in in = holding("last\r");
    std::string line;
    ASSERT_EQ(text_in_next(in, true, line), text_result::line);
    EXPECT_EQ(line, "last");
    EXPECT_EQ(text_in_next(in, true, line), text_result::none);
}

TEST(TextIn, a_line_that_is_too_long_is_told_once_and_skipped_to_its_end)
{
    text_in in = holding(std::string(TEXT_LINE_MAX + 1, 'x'));
    std::string line;
    EXPECT_EQ(text_in_next(in, false, line), text_result::too_long);
    in.held += std::string(3000, 'y');
    EXPECT_EQ(text_in_next(in, false, line), text_result::none);
    EXPECT_EQ(in.held, "");
    in.held += " quit\nnext\n";
    ASSERT_EQ(text_in_next(in, false, line), text_result::line);
    EXPECT_EQ(line, "next");
}

TEST(TextIn, a_long_line_that_came_with_its_end_is_told_once)
{
    text_in in = holding(std::string(TEXT_LINE_MAX + 1, 'x') + "\nnext\n");
    std::string line;
    EXPECT_EQ(text_in_next(in, false, line), text_result::too_long);
    ASSERT_EQ(text_in_next(in, false, line), text_result::line);
    EXPECT_EQ(line, "next");
}

TEST(TextIn, the_longest_line_is_a_line)
{
    text_in in = holding(std::string(TEXT_LINE_MAX, 'x') + "\n");
    std::string line;
    ASSERT_EQ(text_in_next(in, false, line), text_result::line);
    EXPECT_EQ(line.size(), TEXT_LINE_MAX);
}

TEST(TextIn, the_rest_of_a_long_line_is_no_last_line)
{
    text_in in = holding(std::string(TEXT_LINE_MAX + 1, 'x'));
    std::string line;
    EXPECT_EQ(text_in_next(in, false, line), text_result::too_long);
    in.held += "rest";
    EXPECT_EQ(text_in_next(in, true, line), text_result::none);
}

TEST(TextInRead, tells_the_end_from_nothing_yet)
{
    int ends[2];
    text_in in;
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    EXPECT_TRUE(text_in_read(in, ends[0]));
    EXPECT_EQ(in.held, "");
    ASSERT_EQ(write(ends[1], "ab", 2), 2);
    EXPECT_TRUE(text_in_read(in, ends[0]));
    EXPECT_EQ(in.held, "ab");
    close(ends[1]);
    EXPECT_FALSE(text_in_read(in, ends[0]));
    close(ends[0]);
    EXPECT_FALSE(text_in_read(in, ends[0]));
    EXPECT_EQ(in.held, "ab");
}
