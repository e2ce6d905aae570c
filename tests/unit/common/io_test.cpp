#include "common/io.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

class Write : public support::nothing_left
{
  protected:
    void SetUp() override
    {
        nothing_left::SetUp();
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    }

    void TearDown() override
    {
        close(ends[0]);
        close(ends[1]);
        nothing_left::TearDown();
    }

    int flags() const
    {
        return fcntl(ends[1], F_GETFL);
    }

    void make_non_blocking() const
    {
        fcntl(ends[1], F_SETFL, flags() | O_NONBLOCK);
    }

    // What is in the pipe now.
    std::string written() const
    {
        int count = 0;
        EXPECT_EQ(ioctl(ends[0], FIONREAD, &count), 0);
        std::string bytes(static_cast<size_t>(count), '\0');
        if (count > 0) {
            EXPECT_EQ(read(ends[0], bytes.data(), bytes.size()), count);
        }
        return bytes;
    }

    // A fresh count of what happens after it.
    static int writes()
    {
        return fault::calls("write");
    }

    int ends[2] = {-1, -1};
};

TEST_F(Write, writes_all_bytes_and_returns_their_number)
{
    EXPECT_EQ(tty_write(ends[1], "a\0b\r\n", 5), 5);
    EXPECT_EQ(written(), std::string("a\0b\r\n", 5));
}

TEST_F(Write, asks_for_all_remaining_bytes_at_once)
{
    EXPECT_EQ(tty_write(ends[1], "hello", 5), 5);
    EXPECT_EQ(writes(), 1);
}

TEST_F(Write, length_of_zero_or_less_is_returned_without_writing)
{
    for (const int len : {0, -1, -1000}) {
        EXPECT_EQ(tty_write(ends[1], "x", len), len);
    }
    EXPECT_EQ(writes(), 0);
}

TEST_F(Write, leaves_a_non_blocking_descriptor_blocking)
{
    make_non_blocking();
    EXPECT_EQ(tty_write(ends[1], "x", 1), 1);
    EXPECT_EQ(flags() & O_NONBLOCK, 0);
}

TEST_F(Write, length_of_zero_leaves_it_blocking_too)
{
    make_non_blocking();
    EXPECT_EQ(tty_write(ends[1], "x", 0), 0);
    EXPECT_EQ(flags() & O_NONBLOCK, 0);
}

TEST_F(Write, keeps_the_other_status_flags)
{
    ASSERT_EQ(fcntl(ends[1], F_SETFL, flags() | O_NONBLOCK | O_APPEND), 0);
    EXPECT_EQ(tty_write(ends[1], "x", 1), 1);
    EXPECT_NE(flags() & O_APPEND, 0);
}

TEST_F(Write, failures_of_the_flag_calls_are_ignored)
{
    fault_row("tty_write", "fcntl", "EIO", "the length", "",
              "all bytes written");
    const int fcntls = fault::watch("fcntl");
    fault::fail("fcntl", 1, EIO, 2);
    EXPECT_EQ(tty_write(ends[1], "x", 1), 1);
    EXPECT_EQ(fault::seen(fcntls), 2);
    EXPECT_EQ(written(), "x");
}

TEST_F(Write, short_writes_go_on_where_they_stopped)
{
    fault_row("tty_write", "write", "short", "the length", "",
              "all bytes written, none twice");
    fault::shorten("write", 1, 2, fault::ALWAYS);
    EXPECT_EQ(tty_write(ends[1], "abcdefg", 7), 7);
    EXPECT_EQ(written(), "abcdefg");
    EXPECT_EQ(writes(), 4);
}

TEST_F(Write, result_of_zero_is_retried)
{
    fault_row("tty_write", "write", "result 0", "the length", "",
              "all bytes written, none twice");
    fault::shorten("write", 1, 3);
    fault::result("write", 2, 0, 5);
    EXPECT_EQ(tty_write(ends[1], "abcdef", 6), 6);
    EXPECT_EQ(written(), "abcdef");
    EXPECT_EQ(writes(), 7);
}

TEST_F(Write, interruption_or_fullness_resumes_where_it_stopped)
{
    fault_row("tty_write", "write", "EAGAIN, EINPROGRESS, EINTR", "the length",
              "", "all bytes written, none twice");
    for (const int error : {EAGAIN, EINPROGRESS, EINTR}) {
        fault::reset();
        fault::shorten("write", 1, 3);
        fault::fail("write", 2, error);
        EXPECT_EQ(tty_write(ends[1], "abcdef", 6), 6) << error;
        EXPECT_EQ(written(), "abcdef") << error;
        EXPECT_EQ(writes(), 3) << error;
    }
}

TEST_F(Write, retries_have_no_limit_and_no_delay)
{
    fault_row("tty_write", "write", "EAGAIN",
              "the length, after 200000 attempts without a pause", "",
              "all bytes written");
    fault::fail("write", 1, EAGAIN, 200000);
    const int sleeps = fault::watch("usleep");
    const int polls = fault::watch("poll");
    EXPECT_EQ(tty_write(ends[1], "x", 1), 1);
    EXPECT_EQ(writes(), 200001);
    EXPECT_EQ(fault::seen(sleeps) + fault::seen(polls), 0);
}

TEST_F(Write, any_other_error_ends_it_at_once)
{
    fault_row("tty_write", "write", "EIO, ENOSPC, EPIPE, EBADF, EFBIG, EINVAL",
              "-1 and the errno", "", "nothing written");
    for (const int error : {EIO, ENOSPC, EPIPE, EBADF, EFBIG, EINVAL}) {
        fault::reset();
        fault::fail("write", 1, error);
        errno = 0;
        EXPECT_EQ(tty_write(ends[1], "abc", 3), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(writes(), 1);
    }
}

TEST_F(Write, what_was_written_before_the_error_stays)
{
    fault_row("tty_write", "write", "EIO", "-1 and the errno", "",
              "the bytes before the error");
    fault::shorten("write", 1, 2);
    fault::fail("write", 2, EIO);
    EXPECT_EQ(tty_write(ends[1], "abcdef", 6), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(written(), "ab");
}

TEST_F(Write, closed_descriptor_is_an_error)
{
    const int fd = dup(ends[1]);
    close(fd);
    EXPECT_EQ(tty_write(fd, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

static void ignore_signal(int)
{
}

// The pipe is full and non-blocking at first, so that nothing but the writer
// can have made it wait.
TEST_F(Write, is_resumed_after_a_real_signal_in_a_full_pipe)
{
    fault_row("tty_write", "write", "EINTR",
              "the length, whatever signals arrived", "", "all bytes written");
    struct sigaction action = {};
    action.sa_handler = ignore_signal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

    std::string sent;
    for (int i = 0; i < 300000; i++) {
        sent += static_cast<char>('a' + i % 23);
    }
    int result = 0;
    make_non_blocking();
    std::thread writer([&] {
        result = tty_write(ends[1], sent.data(), static_cast<int>(sent.size()));
    });
    const auto full = [&] {
        int count = 0;
        ioctl(ends[0], FIONREAD, &count);
        return count >= 60000;
    };
    EXPECT_TRUE(support::wait_until(full));
    for (int i = 0; i < 20; i++) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        usleep(1000);
    }
    std::string received;
    while (received.size() < sent.size()) {
        char bytes[4096];
        const ssize_t got = read(ends[0], bytes, sizeof bytes);
        ASSERT_GT(got, 0);
        received.append(bytes, static_cast<size_t>(got));
        pthread_kill(writer.native_handle(), SIGUSR1);
    }
    writer.join();
    EXPECT_EQ(result, 300000);
    EXPECT_TRUE(received == sent);
}

// Switching the mode.
using Mode = Write;

TEST_F(Mode, is_switched_both_ways_and_other_flags_stay)
{
    fcntl(ends[1], F_SETFL, flags() | O_APPEND);
    vc_set_bk(ends[1], false);
    EXPECT_EQ(flags() & (O_NONBLOCK | O_APPEND), O_NONBLOCK | O_APPEND);
    vc_set_bk(ends[1], true);
    EXPECT_EQ(flags() & (O_NONBLOCK | O_APPEND), O_APPEND);
}

TEST_F(Mode, is_switched_by_one_fionbio_and_failure_is_ignored)
{
    const int calls = fault::watch("ioctl", fault::only_what(FIONBIO));
    vc_set_bk(ends[1], false);
    EXPECT_EQ(fault::seen(calls), 1);
    vc_set_bk(-1, false);
}
