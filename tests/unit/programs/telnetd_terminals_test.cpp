#include "programs/telnetd/terminals.h"

#include <gtest/gtest.h>

TEST(TelnetdTerminals, knows_what_has_an_entry_in_the_database)
{
    terminals_load();
    EXPECT_TRUE(terminal_known("vt100"));
    EXPECT_TRUE(terminal_known("xterm-256color"));
}

TEST(TelnetdTerminals, knows_no_other)
{
    terminals_load();
    EXPECT_FALSE(terminal_known("unheard-of"));
    EXPECT_FALSE(terminal_known("../v/vt100"));
    EXPECT_FALSE(terminal_known(""));
    EXPECT_FALSE(terminal_known("vt"));
}
