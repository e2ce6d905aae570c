#include "programs/shared/runtime_path.h"

#include <cstdlib>

#include <gtest/gtest.h>

TEST(RuntimePath, begins_with_what_tmpdir_says)
{
    setenv("TMPDIR", "/tmp/inst/3", 1);
    EXPECT_EQ(runtime_path("/mng/tty"), "/tmp/inst/3/mng/tty");
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(runtime_path("/mng/tty"), "/mng/tty");
}

TEST(RuntimePath, is_below_the_root_without_it)
{
    unsetenv("TMPDIR");
    EXPECT_EQ(runtime_path("/mng/tty"), "//mng/tty");
}
