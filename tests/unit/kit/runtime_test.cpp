// Which runtime directories are trusted.
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/privroot.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

class KitRuntime : public support::runtime_test
{
  protected:
    static std::string refusal()
    {
        return kit_runtime_check() == 0 ? "trusted" : kit_error();
    }

    // What a process of user 4711 is told, whose the directory is.
    std::string refusal_of_4711() const
    {
        EXPECT_EQ(chown(runtime_dir.c_str(), 4711, 4711), 0);
        EXPECT_EQ(support::in_child([this] {
                      const bool is = seteuid(4711) == 0;
                      support::spill(path("/said"), refusal());
                      return is;
                  }),
                  0);
        return support::slurp(path("/said"));
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

TEST_F(KitRuntime, component_that_cannot_be_looked_at_is_named)
{
    fault_row("kit_runtime_check", "lstat", "EACCES", "-1", "", "");
    fault_row("kit_runtime_check", "stat", "EIO", "-1", "", "");
    fault::fail("lstat", 1, EACCES);
    EXPECT_EQ(refusal(), "/: Permission denied");
    fault::reset();
    fault::fail("lstat", 1, EACCES, 1, fault::only_path("ttyline-test"));
    EXPECT_EQ(refusal(), runtime_dir + ": Permission denied");
    fault::reset();
    fault::fail("stat", 1, EIO);
    EXPECT_EQ(refusal(), path("/mng") + ": Input/output error");
}

TEST_F(KitRuntime, directory_that_cannot_be_made_is_named)
{
    fault_row("kit_runtime_check", "mkdir", "EROFS", "-1", "", "");
    fault::fail("mkdir", 2, EROFS);
    EXPECT_EQ(refusal(), path("/mng/tty") + ": Read-only file system");
}

TEST_F(KitRuntime, working_directory_that_is_not_known_is_said)
{
    fault_row("kit_runtime_check", "getcwd", "ENOENT", "-1", "", "");
    setenv("TMPDIR", "run", 1);
    fault::fail("getcwd", 1, ENOENT);
    EXPECT_EQ(refusal(),
              "the working directory of run: No such file or directory");
}

// Nothing is made when only a part of it would fit.
TEST_F(KitRuntime, path_has_room_for_what_is_below_it)
{
    const std::string exact =
        runtime_dir + std::string(PATH_MAX - 1 - runtime_dir.size(), '/');
    setenv("TMPDIR", exact.c_str(), 1);
    EXPECT_EQ(refusal(), exact.substr(0, 383)) << "cut, as reasons are";
    EXPECT_FALSE(support::exists(path("/mng")));
    setenv("TMPDIR", (exact + "/").c_str(), 1);
    EXPECT_EQ(refusal(), exact.substr(0, 383));
    EXPECT_FALSE(support::exists(path("/mng")));
}

TEST_F(KitRuntime, link_that_leads_nowhere_is_refused)
{
    fault_row("kit_runtime_check", "realpath", "EIO", "-1", "", "");
    fault_row("kit_runtime_check", "stat", "EACCES", "-1", "", "");
    if (getuid() != 0) {
        GTEST_SKIP() << "only root makes a link of root's";
    }
    ASSERT_EQ(mkdir(path("/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink("elsewhere", path("/mng").c_str()), 0);
    fault::fail("realpath", 1, EIO);
    EXPECT_EQ(refusal(), path("/mng") + " leads nowhere");
    fault::reset();
    fault::fail("stat", 1, EACCES);
    EXPECT_EQ(refusal(), path("/mng") + ": Permission denied");
}

static char *nowhere_else(const char *path, char *target)
{
    return strcpy(target, path);
}

// As somebody does who puts another link there whenever one was followed.
TEST_F(KitRuntime, link_after_link_is_given_up)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root makes a link of root's";
    }
    ASSERT_EQ(symlink("elsewhere", path("/mng").c_str()), 0);
    REPLACE_CALL(realpath, nowhere_else);
    fault::replacing(true);
    EXPECT_EQ(refusal(), path("/mng") + " leads nowhere");
    fault::replacing(false);
}

TEST_F(KitRuntime, own_directory_of_another_user_than_root_is_trusted)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    EXPECT_EQ(refusal_of_4711(), "trusted");
}

// Root's sticky directories protect what is in them; one of his own does not
// protect him from those who can write there.
TEST_F(KitRuntime, sticky_directory_is_one_of_roots)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    ASSERT_EQ(chmod(runtime_dir.c_str(), 01777), 0);
    EXPECT_EQ(refusal_of_4711(),
              runtime_dir + " can be written by others (mode 1777)");
}

TEST_F(KitRuntime, directories_of_the_lines_are_the_users_own)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    make_directories();
    EXPECT_EQ(refusal_of_4711(),
              path("/mng") + " does not belong to user 4711");
}

TEST_F(KitRuntime, link_of_roots_where_others_may_put_one_is_refused)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root makes a link of root's";
    }
    ASSERT_EQ(mkdir(path("/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink("elsewhere", path("/mng").c_str()), 0);
    ASSERT_EQ(chmod(runtime_dir.c_str(), 01777), 0);
    const std::string expected =
        path("/mng") + " is a link that others could have made";
    EXPECT_EQ(refusal(), expected);
    ASSERT_EQ(chmod(runtime_dir.c_str(), 0700), 0);
    EXPECT_EQ(refusal_of_4711(), expected);
}

TEST_F(KitRuntimeOfRoot, without_a_name_it_is_the_root)
{
    ASSERT_EQ(unsetenv("TMPDIR"), 0);
    EXPECT_EQ(kit_runtime_check(), 0) << kit_error();
    EXPECT_TRUE(support::exists("/mng/tty"));
}
