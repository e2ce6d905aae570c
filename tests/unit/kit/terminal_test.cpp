#include "kit/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"

class KitTerminal : public testing::Test
{
  protected:
    void SetUp() override
    {
        master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        slave =
            open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(slave, 0);
        kit_terminal_open(master);
    }

    void TearDown() override
    {
        close(slave);
        close(master);
    }

    // It takes the terminal a moment.
    void type_a_line() const
    {
        pollfd watched = {slave, POLLIN, 0};
        ASSERT_EQ(write(master, "typed\n", 6), 6);
        ASSERT_EQ(poll(&watched, 1, 20000), 1);
    }

    std::string size() const
    {
        winsize now = {};
        ioctl(slave, TIOCGWINSZ, &now);
        return std::to_string(now.ws_col) + "x" + std::to_string(now.ws_row);
    }

    int master = -1;
    int slave = -1;
};

TEST_F(KitTerminal, nothing_is_known_that_was_not_told)
{
    const kit_terminal told = kit_terminal_told();
    EXPECT_EQ(told.type, nullptr);
    EXPECT_EQ(told.columns, 0u);
    EXPECT_EQ(told.rows, 0u);
}

TEST_F(KitTerminal, size_that_was_told_is_the_terminals)
{
    EXPECT_EQ(kit_terminal_size(132, 50), 0);
    EXPECT_EQ(size(), "132x50");
    EXPECT_EQ(kit_terminal_told().columns, 132u);
    EXPECT_EQ(kit_terminal_told().rows, 50u);
    EXPECT_EQ(kit_terminal_size(65535, 1), 0);
    EXPECT_EQ(size(), "65535x1");
}

TEST_F(KitTerminal, size_out_of_range_changes_nothing)
{
    ASSERT_EQ(kit_terminal_size(132, 50), 0);
    for (const auto &[columns, rows] :
         {std::pair(0U, 0U), std::pair(0U, 50U), std::pair(132U, 0U),
          std::pair(65536U, 50U), std::pair(132U, 65536U)}) {
        EXPECT_EQ(kit_terminal_size(columns, rows), -1);
        EXPECT_EQ(kit_error(), std::to_string(columns) + " times " +
                                   std::to_string(rows) +
                                   " is no size of a terminal");
    }
    EXPECT_EQ(size(), "132x50");
    EXPECT_EQ(kit_terminal_told().columns, 132u);
}

TEST_F(KitTerminal, terminal_that_is_none_takes_no_size)
{
    kit_terminal_open(-1);
    EXPECT_EQ(kit_terminal_size(80, 24), -1);
    EXPECT_STREQ(kit_error(), "no terminal takes a size: Bad file descriptor");
    EXPECT_EQ(kit_terminal_told().columns, 0u);
}

TEST_F(KitTerminal, type_has_1_to_63_bytes)
{
    const std::string longest(63, 'x');
    EXPECT_EQ(kit_terminal_type(longest.c_str()), 0);
    EXPECT_EQ(kit_terminal_told().type, longest);
    for (const std::string &name : {std::string(), longest + "x"}) {
        EXPECT_EQ(kit_terminal_type(name.c_str()), -1);
        EXPECT_STREQ(kit_error(), "a terminal type has 1 to 63 bytes");
    }
    EXPECT_EQ(kit_terminal_told().type, longest);
}

TEST_F(KitTerminal, special_character_is_the_one_that_a_program_has_chosen)
{
    EXPECT_EQ(kit_terminal_character(VINTR), 3);
    termios modes;
    tcgetattr(slave, &modes);
    modes.c_cc[VINTR] = 0x1e;
    modes.c_cc[VERASE] = _POSIX_VDISABLE;
    tcsetattr(slave, TCSANOW, &modes);
    EXPECT_EQ(kit_terminal_character(VINTR), 0x1e);
    EXPECT_EQ(kit_terminal_character(VERASE), 0);
}

TEST_F(KitTerminal, no_terminal_has_a_character_of_another_index)
{
    EXPECT_EQ(kit_terminal_character(-1), 0);
    EXPECT_EQ(kit_terminal_character(NCCS), 0);
    kit_terminal_open(-1);
    EXPECT_EQ(kit_terminal_character(VINTR), 0);
}

// Neither in the terminal nor on the way to it.
TEST_F(KitTerminal, what_was_typed_can_be_forgotten)
{
    const std::string line = std::string(98, 'x') + "\n";
    ssize_t put;
    while ((put = write(master, line.data(), line.size())) > 0) {
    }
    kit_terminal_forget_typed();
    termios modes;
    tcgetattr(slave, &modes);
    modes.c_lflag &= ~tcflag_t{ECHO};
    tcsetattr(slave, TCSANOW, &modes);
    ASSERT_EQ(write(master, "last\n", 5), 5);
    pollfd watched = {slave, POLLIN, 0};
    ASSERT_EQ(poll(&watched, 1, 20000), 1);
    char text[256];
    const ssize_t got = read(slave, text, sizeof text);
    EXPECT_EQ(std::string(text, got > 0 ? static_cast<size_t>(got) : 0),
              "last\n");
}

TEST_F(KitTerminal, terminal_that_fails_is_left_as_it_is)
{
    fault_row("kit_terminal_size", "ioctl", "EIO", "-1", "",
              "the size as it was");
    fault_row("kit_terminal_character", "tcgetattr", "EIO", "0, no character",
              "", "");
    fault::reset();
    ASSERT_EQ(kit_terminal_size(132, 50), 0);
    fault::fail("ioctl", 1, EIO, 1, fault::only_what(TIOCSWINSZ));
    EXPECT_EQ(kit_terminal_size(80, 24), -1);
    EXPECT_STREQ(kit_error(), "no terminal takes a size: Input/output error");
    EXPECT_EQ(size(), "132x50");
    EXPECT_EQ(kit_terminal_told().columns, 132u);
    fault::fail("tcgetattr", 1, EIO);
    EXPECT_EQ(kit_terminal_character(VINTR), 0);
    EXPECT_EQ(kit_terminal_character(VINTR), 3);
    fault::reset();
}

TEST_F(KitTerminal, what_was_typed_is_unread_until_it_is_read)
{
    char text[64];
    EXPECT_FALSE(kit_terminal_has_unread());
    type_a_line();
    EXPECT_TRUE(kit_terminal_has_unread());
    EXPECT_EQ(read(slave, text, sizeof text), 6);
    EXPECT_FALSE(kit_terminal_has_unread());
}

TEST_F(KitTerminal, what_cannot_be_asked_for_is_not_unread)
{
    fault_row("kit_terminal_has_unread", "ioctl", "EMFILE", "false", "",
              "nothing");
    fault::reset();
    type_a_line();
    fault::fail("ioctl", 1, EMFILE, 1,
                fault::only_what(static_cast<long>(TIOCGPTPEER)));
    EXPECT_FALSE(kit_terminal_has_unread());
    fault::reset();
}

// What the terminal has is the program's then; what is on the way is not.
TEST_F(KitTerminal, what_was_typed_stays_where_it_cannot_be_reached)
{
    fault_row("kit_terminal_forget_typed", "ioctl", "EMFILE", "nothing", "",
              "what the terminal has already");
    fault::reset();
    type_a_line();
    fault::fail("ioctl", 1, EMFILE, 1,
                fault::only_what(static_cast<long>(TIOCGPTPEER)));
    kit_terminal_forget_typed();
    fault::reset();
    char text[64];
    EXPECT_EQ(read(slave, text, sizeof text), 6);
}
