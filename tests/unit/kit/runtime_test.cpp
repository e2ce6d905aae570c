// Which runtime directories are trusted.
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "tests/support/privroot.h"
#include "tests/support/runtime.h"

class KitRuntime : public support::runtime_test
{
  protected:
    static std::string refusal()
    {
        return kit_runtime_check() == 0 ? "trusted" : kit_error();
    }
};

TEST_F(KitRuntime, own_directory_is_trusted_and_completed)
{
    EXPECT_EQ(refusal(), "trusted");
    struct stat status = {};
    ASSERT_EQ(stat(path("/mng/tty").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    EXPECT_EQ(refusal(), "trusted");
}

TEST_F(KitRuntime, directory_that_others_can_write_is_refused)
{
    make_directories();
    for (const char *name : {"/mng/tty", "/mng", ""}) {
        for (const mode_t mode : {0720u, 0702u, 0777u}) {
            ASSERT_EQ(chmod(path(name).c_str(), mode), 0);
            EXPECT_NE(refusal().find(path(name) + " can be written by others"),
                      std::string::npos)
                << refusal();
        }
        ASSERT_EQ(chmod(path(name).c_str(), 0700), 0);
    }
    EXPECT_EQ(refusal(), "trusted");
}

TEST_F(KitRuntime, directory_of_another_user_is_refused)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root gives a directory away";
    }
    make_directories();
    ASSERT_EQ(chmod(path("/mng/tty").c_str(), 0700), 0);
    ASSERT_EQ(chmod(path("/mng").c_str(), 0700), 0);
    ASSERT_EQ(chown(path("/mng").c_str(), 4711, 4711), 0);
    EXPECT_EQ(refusal(), path("/mng") + " belongs to user 4711");
    ASSERT_EQ(chown(path("/mng").c_str(), 0, 0), 0);
    ASSERT_EQ(chown(runtime_dir.c_str(), 4711, 4711), 0);
    EXPECT_EQ(refusal(), runtime_dir + " belongs to user 4711");
    ASSERT_EQ(chown(runtime_dir.c_str(), 0, 0), 0);
}

// Below a directory that others may write, sticky or not, somebody else could
// have put it there.
TEST_F(KitRuntime, link_that_others_could_have_made_is_refused)
{
    ASSERT_EQ(mkdir(path("/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink("elsewhere", path("/mng").c_str()), 0);
    if (getuid() == 0) {
        ASSERT_EQ(lchown(path("/mng").c_str(), 4711, 4711), 0);
    }
    EXPECT_EQ(refusal(), path("/mng") + " is a link that others could have "
                                        "made");
}

TEST_F(KitRuntime, link_of_roots_in_a_directory_of_roots_is_followed)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root makes a link of root's";
    }
    ASSERT_EQ(mkdir(path("/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink("elsewhere", path("/mng").c_str()), 0);
    EXPECT_EQ(refusal(), "trusted");
    ASSERT_EQ(chmod(path("/elsewhere").c_str(), 0777), 0);
    EXPECT_NE(refusal().find("/elsewhere can be written by others"),
              std::string::npos)
        << refusal();
}

TEST_F(KitRuntime, file_in_its_place_is_refused)
{
    support::spill(path("/mng"), "");
    EXPECT_EQ(refusal(), path("/mng") + " is no directory");
}

TEST_F(KitRuntime, path_that_is_missing_is_refused)
{
    setenv("TMPDIR", path("/nowhere").c_str(), 1);
    EXPECT_NE(refusal(), "trusted");
}

TEST_F(KitRuntime, path_from_here_is_looked_at_from_the_root)
{
    ASSERT_EQ(mkdir(path("/run").c_str(), 0700), 0);
    ASSERT_EQ(chdir(runtime_dir.c_str()), 0);
    setenv("TMPDIR", "run", 1);
    EXPECT_EQ(refusal(), "trusted");
    ASSERT_EQ(chmod(runtime_dir.c_str(), 0777), 0);
    EXPECT_NE(refusal(), "trusted");
    ASSERT_EQ(chdir("/"), 0);
}

class KitRuntimeOfRoot : public support::private_root_test
{
};

// As the libraries take it, wherever the process works.
TEST_F(KitRuntimeOfRoot, empty_name_is_the_root)
{
    ASSERT_EQ(chdir("/tmp"), 0);
    ASSERT_EQ(setenv("TMPDIR", "", 1), 0);
    EXPECT_EQ(kit_runtime_check(), 0) << kit_error();
    EXPECT_TRUE(support::exists("/mng/tty"));
    EXPECT_FALSE(support::exists("/tmp/mng"));
}
