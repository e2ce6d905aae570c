#include "programs/telnetd/terminals.h"

#include <gtest/gtest.h>

TEST(TelnetdTerminals, knows_what_has_an_entry_in_the_database)
{
    EXPECT_TRUE(terminal_known("vt100"));
    EXPECT_TRUE(terminal_known("xterm-256color"));
}

TEST(TelnetdTerminals, knows_no_other)
{
    EXPECT_FALSE(terminal_known("unheard-of"));
    EXPECT_FALSE(terminal_known("vt"));
}
