#include "vc/read_set.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/machine.h"

TEST(ReadSetTest, a_cleared_set_holds_nothing)
{
    static read_set set;
    for (const int highest : {0, 63, 64, 1023, 1024, READ_SET_SIZE - 1}) {
        for (int fd = 0; fd <= highest; fd++) {
            read_set_add(&set, fd);
        }
        read_set_clear(&set);
        EXPECT_EQ(set.highest, -1);
        for (int fd = 0; fd < READ_SET_SIZE; fd++) {
            ASSERT_FALSE(read_set_has(&set, fd)) << highest;
        }
    }
}

TEST(ReadSetTest, descriptors_up_to_65535_are_held)
{
    static read_set set;
    read_set_clear(&set);
    for (const int fd : {0, 63, 64, 1023, 1024, 65535}) {
        read_set_add(&set, fd);
        EXPECT_TRUE(read_set_has(&set, fd)) << fd;
        EXPECT_EQ(set.highest, fd);
    }
    read_set_remove(&set, 1024);
    EXPECT_FALSE(read_set_has(&set, 1024));
    EXPECT_TRUE(read_set_has(&set, 1023));
}

TEST(ReadSetTest, others_are_left_out_without_harm)
{
    static read_set set;
    read_set_clear(&set);
    for (const int fd : {-1, 65536, 0x7fffffff}) {
        read_set_add(&set, fd);
        read_set_remove(&set, fd);
        EXPECT_FALSE(read_set_has(&set, fd)) << fd;
    }
    EXPECT_EQ(set.highest, -1);
}

TEST(ReadSetTest, the_highest_descriptor_does_not_sink)
{
    static read_set set;
    read_set_clear(&set);
    read_set_add(&set, 9);
    read_set_add(&set, 3);
    EXPECT_EQ(set.highest, 9);
}

TEST(ReadSetTest, a_wait_leaves_the_readable_ones)
{
    support::not_in_emulator("select() ends it above 1023");
    static read_set set;
    int quiet[2];
    int ready[2];
    ASSERT_EQ(pipe2(quiet, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(write(ready[1], "x", 1), 1);
    const int high = fcntl(ready[0], F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(high, 1500);
    read_set_clear(&set);
    read_set_add(&set, quiet[0]);
    read_set_add(&set, high);
    EXPECT_EQ(read_set_wait(&set, 5, 0), 1);
    EXPECT_FALSE(read_set_has(&set, quiet[0]));
    EXPECT_TRUE(read_set_has(&set, high));
    read_set_clear(&set);
    read_set_add(&set, quiet[0]);
    EXPECT_EQ(read_set_wait(&set, 0, 1000), 0);
}

TEST(ReadSetTest, a_watched_descriptor_is_switched_to_blocking)
{
    static read_set set;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    read_set_clear(&set);
    read_set_watch(&set, ends[0]);
    EXPECT_TRUE(read_set_has(&set, ends[0]));
    EXPECT_EQ(set.highest, ends[0]);
    EXPECT_EQ(fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(ReadSetTest, a_number_that_is_not_open_is_not_watched)
{
    static read_set set;
    const int fd = dup(0);
    close(fd);
    read_set_clear(&set);
    read_set_watch(&set, fd);
    read_set_watch(&set, -1);
    EXPECT_FALSE(read_set_has(&set, fd));
    EXPECT_EQ(set.highest, -1);
}

TEST(ReadSetTest, a_mode_that_cannot_be_set_does_not_leave_a_descriptor_out)
{
    fault_row("read_set_watch", "ioctl", "ENOTTY", "nothing", "",
              "the descriptor is watched");
    static read_set set;
    read_set_clear(&set);
    fault::fail("ioctl", 1, ENOTTY);
    read_set_watch(&set, 0);
    fault::reset();
    EXPECT_TRUE(read_set_has(&set, 0));
}

TEST(ReadSetTest, errno_is_kept_while_descriptors_are_watched)
{
    static read_set set;
    const int fd = dup(0);
    close(fd);
    read_set_clear(&set);
    errno = EINTR;
    read_set_watch(&set, fd);
    EXPECT_EQ(errno, EINTR);
}
