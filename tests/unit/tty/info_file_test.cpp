#include "tty/info_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "tests/support/fault_row.h"
#include "tests/support/machine.h"
#include "tests/unit/tty/tty_fixture.h"

static const std::string PREFIX = "/d/mng/tty/.tty_info";

TEST(Names, are_the_prefix_and_the_line_with_their_suffixes)
{
    info_names names;
    EXPECT_TRUE(name_files(&names, PREFIX.c_str(), 12));
    EXPECT_EQ(names.info, PREFIX + "_12");
    EXPECT_EQ(names.temporary, PREFIX + "_12.tmp");
    EXPECT_EQ(names.lock, PREFIX + "_12.lock");
}

TEST(Names, file_name_has_at_most127_characters)
{
    info_names names;
    const std::string longest(123, 'p');
    EXPECT_TRUE(name_files(&names, longest.c_str(), 300));
    EXPECT_EQ(names.info, longest + "_300");
    EXPECT_EQ(strlen(names.info), 127u);
}

TEST(Names, companions_of_the_longest_name_are_whole)
{
    info_names names;
    const std::string longest(123, 'p');
    EXPECT_TRUE(name_files(&names, longest.c_str(), 300));
    EXPECT_EQ(names.temporary, longest + "_300.tmp");
    EXPECT_EQ(names.lock, longest + "_300.lock");
}

TEST(Names, file_name_of128_characters_is_refused)
{
    info_names names;
    errno = 0;
    EXPECT_FALSE(name_files(&names, std::string(124, 'p').c_str(), 300));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(Buffer, has1025_bytes_and_is_read_to1024)
{
    EXPECT_EQ(sizeof g_tty_tmpbuf, 1025u);
    EXPECT_EQ(LINE_LIMIT, 1024);
}

class ReadLine : public tty_test
{
  protected:
    void TearDown() override
    {
        if (fd >= 0) {
            close(fd);
        }
        tty_test::TearDown();
    }

    void open_with(const std::string &content)
    {
        support::spill(path("/lines"), content);
        fd = open(path("/lines").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
    }

    int read_line(int limit = 16)
    {
        memset(buf, 0x5a, sizeof buf);
        return tty_read_line(fd, buf, limit);
    }

    // What stands in the buffer that the last call was given.
    std::string bytes(size_t count) const
    {
        return std::string(buf, count);
    }

    static std::string ids()
    {
        return "tty_read_line(pid " + std::to_string(getpid()) + ":tid " +
               std::to_string(gettid()) + "):read line fail, fd ";
    }

    int fd = -1;
    char buf[64];
};

TEST_F(ReadLine, returns_the_line_with_its_line_feed)
{
    open_with("one\r\n\ntwo\n");
    EXPECT_EQ(read_line(), 5);
    EXPECT_EQ(bytes(5), "one\r\n");
    EXPECT_EQ(read_line(), 1);
    EXPECT_EQ(bytes(1), "\n");
    EXPECT_EQ(read_line(), 4);
    EXPECT_EQ(bytes(4), "two\n");
    EXPECT_EQ(read_line(), -1);
}

TEST_F(ReadLine, clears_the_buffer_as_far_as_it_may)
{
    open_with("ab\n");
    EXPECT_EQ(read_line(10), 3);
    EXPECT_EQ(bytes(10), std::string("ab\n\0\0\0\0\0\0\0", 10));
    EXPECT_EQ(buf[10], 0x5a);
    EXPECT_EQ(read_line(10), -1);
    EXPECT_EQ(bytes(10), std::string(10, '\0'));
    EXPECT_EQ(buf[10], 0x5a);
}

TEST_F(ReadLine, last_line_needs_no_line_feed)
{
    open_with("one\ntwo");
    EXPECT_EQ(read_line(), 4);
    EXPECT_EQ(read_line(), 3);
    EXPECT_EQ(bytes(3), "two");
    EXPECT_EQ(read_line(), -1);
}

TEST_F(ReadLine, zero_byte_ends_the_line_and_is_counted)
{
    open_with(std::string("ab\0cd\n", 6));
    EXPECT_EQ(read_line(), 3);
    EXPECT_EQ(bytes(4), std::string("ab\0\0", 4));
    EXPECT_EQ(read_line(), 3);
    EXPECT_EQ(bytes(3), "cd\n");
}

TEST_F(ReadLine, long_line_comes_in_pieces)
{
    open_with("abcdefgh\n");
    EXPECT_EQ(read_line(4), 4);
    EXPECT_EQ(bytes(4), "abcd");
    EXPECT_EQ(buf[4], 0x5a);
    EXPECT_EQ(read_line(4), 4);
    EXPECT_EQ(bytes(4), "efgh");
    EXPECT_EQ(read_line(4), 1);
    EXPECT_EQ(bytes(1), "\n");
}

TEST_F(ReadLine, end_of_the_file_is_a_trace)
{
    trace_on();
    open_with("");
    EXPECT_EQ(read_line(), -1);
    EXPECT_EQ(tty_log(), messages({ids() + std::to_string(fd) + "\n"}));
}

TEST_F(ReadLine, end_of_the_file_is_silent_without_traces)
{
    open_with("");
    EXPECT_EQ(read_line(), -1);
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(ReadLine, part_of_a_line_before_the_end_is_no_trace)
{
    trace_on();
    open_with("x");
    EXPECT_EQ(read_line(), 1);
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(ReadLine, null_buffer_is_refused)
{
    support::not_in_guest("std::ifstream calls read() too");
    open_with("one\n");
    const int reads = fault::watch("read");
    EXPECT_EQ(tty_read_line(fd, nullptr, 16), 0);
    EXPECT_EQ(tty_log(), messages({ids() + std::to_string(fd) +
                                   ", buflen 16, buf (nil)\n"}));
    EXPECT_EQ(fault::seen(reads), 0);
}

TEST_F(ReadLine, negative_descriptor_is_refused)
{
    char pointer[32];
    (void)snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(buf));
    EXPECT_EQ(tty_read_line(-1, buf, 16), 0);
    EXPECT_EQ(tty_log(),
              messages({ids() + "-1, buflen 16, buf " + pointer + "\n"}));
}

TEST_F(ReadLine, length_of_zero_or_less_is_refused)
{
    char pointer[32];
    (void)snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(buf));
    open_with("one\n");
    EXPECT_EQ(read_line(0), 0);
    EXPECT_EQ(read_line(-3), 0);
    const std::string start = ids() + std::to_string(fd) + ", buflen ";
    EXPECT_EQ(tty_log(), messages({start + "0, buf " + pointer + "\n",
                                   start + "-3, buf " + pointer + "\n"}));
    EXPECT_EQ(buf[0], 0x5a);
    EXPECT_EQ(read_line(), 4);
}

TEST_F(ReadLine, leaves_the_descriptor_blocking)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(write(ends[1], "one\n", 4), 4);
    EXPECT_EQ(tty_read_line(ends[0], buf, 16), 4);
    EXPECT_EQ(fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ReadLine, asks_for_one_byte_at_a_time)
{
    open_with("one\ntwo\n");
    const int reads = fault::watch("read");
    EXPECT_EQ(read_line(), 4);
    EXPECT_EQ(fault::seen(reads), 4);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 4);
}

TEST_F(ReadLine, interruptions_are_repeated)
{
    fault_row("tty_read_line", "read", "EAGAIN, EINPROGRESS, EINTR",
              "the whole line", "", "");
    open_with("one\ntwo\nsix\n");
    for (const int error : {EAGAIN, EINPROGRESS, EINTR}) {
        fault::reset();
        fault::fail("read", 2, error, 100);
        EXPECT_EQ(read_line(), 4) << error;
        EXPECT_EQ(fault::calls("read"), 104) << error;
    }
}

TEST_F(ReadLine, any_other_error_ends_the_line)
{
    fault_row("tty_read_line", "read", "EIO", "the bytes so far", "",
              "the rest of the line is the next one");
    open_with("one\n");
    fault::fail("read", 3, EIO);
    EXPECT_EQ(read_line(), 2);
    EXPECT_EQ(bytes(3), std::string("on\0", 3));
    EXPECT_EQ(read_line(), 2);
    EXPECT_EQ(bytes(2), "e\n");
}

TEST_F(ReadLine, error_before_the_first_byte_gives_zero)
{
    fault_row("tty_read_line", "read", "EIO", "0", "",
              "the line is still to be read");
    open_with("one\n");
    fault::fail("read", 1, EIO);
    EXPECT_EQ(read_line(), 0);
    EXPECT_EQ(read_line(), 4);
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(ReadLine, failures_of_the_flag_calls_are_ignored)
{
    fault_row("tty_read_line", "fcntl", "EIO", "the whole line", "", "");
    open_with("one\n");
    fault::fail("fcntl", 1, EIO, 2);
    EXPECT_EQ(read_line(), 4);
    EXPECT_EQ(fault::calls("fcntl"), 2);
}

class NextPiece : public ReadLine
{
};

TEST_F(NextPiece, fills_the_line_buffer_and_ends_with_the_file)
{
    bool failed = false;
    open_with("A=1\r\n" + std::string(1500, 'x') + "\n");
    EXPECT_TRUE(next_piece(fd, &failed));
    EXPECT_STREQ(g_tty_tmpbuf, "A=1\r\n");
    EXPECT_TRUE(next_piece(fd, &failed));
    EXPECT_EQ(g_tty_tmpbuf, std::string(1024, 'x'));
    EXPECT_TRUE(next_piece(fd, &failed));
    EXPECT_EQ(g_tty_tmpbuf, std::string(476, 'x') + "\n");
    EXPECT_FALSE(next_piece(fd, &failed));
    EXPECT_FALSE(failed);
}

TEST_F(NextPiece, skips_errors_that_deliver_nothing)
{
    fault_row("next_piece", "read", "EIO",
              "the next line, when no more than 15 errors come first", "", "");
    bool failed = false;
    open_with("A=1\n");
    fault::fail("read", 1, EIO, 15);
    EXPECT_TRUE(next_piece(fd, &failed));
    EXPECT_STREQ(g_tty_tmpbuf, "A=1\n");
    EXPECT_FALSE(failed);
}

TEST_F(NextPiece, gives_up_a_file_that_cannot_be_read)
{
    fault_row("next_piece", "read", "EISDIR", "false, and the failure is told",
              "", "given up within 100 reads");
    bool failed = false;
    fd = open(runtime_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int reads = fault::watch("read");
    EXPECT_FALSE(next_piece(fd, &failed));
    EXPECT_TRUE(failed);
    EXPECT_LE(fault::seen(reads), 100);
}

static bool matches(const char *piece, const char *name)
{
    (void)snprintf(g_tty_tmpbuf, sizeof g_tty_tmpbuf, "%s", piece);
    return piece_is_of(name);
}

TEST(PieceIsOf, the_key_that_stands_at_its_start_before_the_equals_sign)
{
    EXPECT_TRUE(matches("VKD=1\r\n", "VKD"));
    EXPECT_TRUE(matches("VKD=", "VKD"));
    EXPECT_TRUE(matches("VKD==\n", "VKD"));
    for (const char *piece : {"VKD_SWITCH=1\r\n", "VK=1", "VKD", "VKD =1",
                              " VKD=1", "vkd=1", "XVKD=1", "\n", "", "="}) {
        EXPECT_FALSE(matches(piece, "VKD")) << piece;
    }
}
