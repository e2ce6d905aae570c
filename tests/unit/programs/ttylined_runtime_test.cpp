#include "programs/ttylined/runtime.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/wait.h"

class Runtime : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/runtime_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
        setenv("TMPDIR", name, 1);
    }

    void TearDown() override
    {
        std::filesystem::remove_all(directory);
    }

    std::string directory;
    std::string path;
    std::string error;
};

TEST_F(Runtime, makes_its_directories_for_itself_alone)
{
    struct stat status = {};
    ASSERT_TRUE(runtime_take(path, error)) << error;
    EXPECT_EQ(path, directory + "/mng/tty/inetd/.qv_inetd");
    EXPECT_EQ(runtime_admin_path(), directory + "/mng/tty/.tty_rl");
    for (const char *name : {"/mng", "/mng/tty", "/mng/tty/inetd"}) {
        ASSERT_EQ(stat((directory + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0700U) << name;
    }
}

TEST_F(Runtime, is_taken_by_one_process)
{
    ASSERT_TRUE(runtime_take(path, error)) << error;
    EXPECT_EQ(support::in_child([] {
                  std::string other_path;
                  std::string why;
                  return !runtime_take(other_path, why) &&
                         why.find("another line-allocation daemon") !=
                             std::string::npos;
              }),
              0);
}

TEST_F(Runtime, says_what_is_in_its_way)
{
    std::ofstream(directory + "/mng") << "text";
    EXPECT_FALSE(runtime_take(path, error));
    EXPECT_EQ(error, directory + "/mng is no directory");
}

TEST_F(Runtime, is_not_taken_where_others_can_change_it)
{
    std::filesystem::create_directories(directory + "/mng/tty/inetd");
    for (const char *name : {"/mng/tty/inetd", "/mng/tty", "/mng", ""}) {
        const std::string changed = directory + name;
        ASSERT_EQ(chmod(changed.c_str(), 0777), 0);
        EXPECT_FALSE(runtime_take(path, error)) << name;
        EXPECT_EQ(error.rfind(changed + " can be written by others", 0), 0U)
            << error;
        ASSERT_EQ(chmod(changed.c_str(), 0700), 0);
    }
    EXPECT_TRUE(runtime_take(path, error)) << error;
}

TEST_F(Runtime, is_not_taken_behind_a_link)
{
    std::filesystem::create_directories(directory + "/mng/tty");
    std::filesystem::create_directories(directory + "/elsewhere");
    std::filesystem::create_symlink(directory + "/elsewhere",
                                    directory + "/mng/tty/inetd");
    EXPECT_FALSE(runtime_take(path, error));
    EXPECT_EQ(error, directory + "/mng/tty/inetd: Not a directory");
    EXPECT_TRUE(std::filesystem::is_empty(directory + "/elsewhere"));
}
