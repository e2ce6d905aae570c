#include "programs/shared/runtime_path.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/runtime.h"

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

class StoreTrusted : public support::runtime_test
{
  protected:
    std::string why;
};

TEST_F(StoreTrusted, is_one_that_a_daemon_made_for_this_user)
{
    make_directories();
    EXPECT_TRUE(store_trusted(why)) << why;
    ASSERT_EQ(chmod(path("/mng").c_str(), 0777), 0);
    EXPECT_FALSE(store_trusted(why));
    EXPECT_EQ(why, path("/mng") + " can be written by others (mode 0777)");
}

TEST_F(StoreTrusted, is_never_made)
{
    EXPECT_FALSE(store_trusted(why));
    EXPECT_EQ(why, "there is no line store " + path("/mng/tty") +
                       ": No such file or directory");
    EXPECT_FALSE(support::exists(path("/mng")));
}
